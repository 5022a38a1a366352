#include "platform/concurrency/loop/TimerTable.h"

#include <gtest/gtest.h>

#include <vector>

namespace kestrine::test {
namespace {

using namespace std::chrono_literals;
using platform::ItemSerial;
using platform::TimerTable;

TimerTable::TimePoint at(std::chrono::milliseconds time) { return TimerTable::TimePoint(time); }

std::vector<ItemSerial> allDue(TimerTable& table, std::chrono::milliseconds now) {
  std::vector<ItemSerial> due;
  while (const auto item = table.takeDue(at(now))) due.push_back(*item);
  return due;
}

TEST(TimerTable, IsEmptyAtFirst) {
  TimerTable table;
  EXPECT_EQ(table.size(), 0U);
  EXPECT_EQ(table.next(), std::nullopt);
  EXPECT_EQ(table.takeDue(TimerTable::TimePoint::max()), std::nullopt);
}

TEST(TimerTable, GivesWhatIsDueInTheOrderOfItsTimes) {
  TimerTable table;
  table.arm(1, at(30ms), 0ns);
  table.arm(2, at(10ms), 0ns);
  table.arm(3, at(20ms), 0ns);
  EXPECT_EQ(table.next(), at(10ms));
  EXPECT_EQ(table.takeDue(at(9ms)), std::nullopt);
  EXPECT_EQ(allDue(table, 20ms), std::vector<ItemSerial>({2, 3}));
  EXPECT_EQ(table.next(), at(30ms));
  EXPECT_EQ(table.size(), 1U);
  EXPECT_EQ(allDue(table, 30ms), std::vector<ItemSerial>({1}));
  EXPECT_EQ(table.size(), 0U);
}

TEST(TimerTable, KeepsTimersOfOneTimeApart) {
  TimerTable table;
  for (const ItemSerial item : {5, 4, 6}) table.arm(item, at(10ms), 0ns);
  table.cancel(4);
  EXPECT_EQ(allDue(table, 10ms), std::vector<ItemSerial>({5, 6}));
}

TEST(TimerTable, RepeatsAndSkipsPeriodsThatHavePassed) {
  TimerTable table;
  table.arm(1, at(10ms), 20ms);
  EXPECT_EQ(allDue(table, 10ms), std::vector<ItemSerial>({1}));
  EXPECT_EQ(table.next(), at(30ms));
  EXPECT_EQ(allDue(table, 95ms), std::vector<ItemSerial>({1}));
  EXPECT_EQ(table.next(), at(110ms));
  EXPECT_EQ(allDue(table, 110ms), std::vector<ItemSerial>({1}));
  EXPECT_EQ(table.next(), at(130ms)) << "due at the end of a period, it is due again one later";
}

TEST(TimerTable, ForgetsWhatIsCancelledAlsoWhenItHasRepeated) {
  TimerTable table;
  table.arm(1, at(10ms), 20ms);
  table.arm(2, at(50ms), 0ns);
  EXPECT_EQ(table.takeDue(at(10ms)), 1U);
  table.cancel(1);
  table.cancel(7);
  EXPECT_EQ(table.next(), at(50ms));
  EXPECT_EQ(table.size(), 1U);
  table.clear();
  EXPECT_EQ(table.size(), 0U);
  EXPECT_EQ(table.next(), std::nullopt);
}

}  // namespace
}  // namespace kestrine::test
