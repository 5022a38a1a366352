#include "platform/fsevents/event/Coalescer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace kestrine::test {
namespace {

using platform::kFSEventStreamEventFlagItemCreated;
using platform::kFSEventStreamEventFlagItemModified;
using platform::kFSEventStreamEventFlagItemRemoved;
using platform::fsevents::Coalescer;

TEST(Coalescer, JoinsTheFlagsOfOnePathAndKeepsTheOrderOfFirstChanges) {
  Coalescer coalescer;
  coalescer.add(0, "/b", kFSEventStreamEventFlagItemCreated, true);
  coalescer.add(1, "/a", kFSEventStreamEventFlagItemModified, false);
  coalescer.add(0, "/b", kFSEventStreamEventFlagItemModified, false);
  const auto events = coalescer.take();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].path, "/b");
  EXPECT_EQ(events[0].flags, 0x1100U);
  EXPECT_TRUE(events[0].needsKind);
  EXPECT_EQ(events[1].path, "/a");
  EXPECT_EQ(events[1].tree, 1U);
}

TEST(Coalescer, AsksForTheKindUnlessALaterChangeToldIt) {
  using platform::kFSEventStreamEventFlagItemIsFile;
  Coalescer coalescer;
  coalescer.add(0, "/told", kFSEventStreamEventFlagItemCreated, true);
  coalescer.add(0, "/told", kFSEventStreamEventFlagItemModified | kFSEventStreamEventFlagItemIsFile, false);
  coalescer.add(0, "/another", kFSEventStreamEventFlagItemModified | kFSEventStreamEventFlagItemIsFile, false);
  coalescer.add(0, "/another", kFSEventStreamEventFlagItemCreated, true);
  const auto events = coalescer.take();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_FALSE(events[0].needsKind);
  EXPECT_TRUE(events[1].needsKind);
}

TEST(Coalescer, FindsEachOfManyPathsAgain) {
  constexpr std::size_t kPaths = 10000;
  Coalescer coalescer;
  for (std::size_t i = 0; i < kPaths; ++i) ASSERT_EQ(coalescer.add(0, "/" + std::to_string(i), 1, false), i);
  for (std::size_t i = kPaths; i-- > 0;) ASSERT_EQ(coalescer.add(0, "/" + std::to_string(i), 2, false), i);
  const auto events = coalescer.take();
  ASSERT_EQ(events.size(), kPaths);
  for (const auto& event : events) ASSERT_EQ(event.flags, 3U);
  EXPECT_EQ(coalescer.add(0, "/0", 1, false), 0U);
}

TEST(Coalescer, CancelsNothing) {
  Coalescer coalescer;
  coalescer.add(0, "/x", kFSEventStreamEventFlagItemCreated, false);
  coalescer.add(0, "/x", kFSEventStreamEventFlagItemRemoved, false);
  ASSERT_FALSE(coalescer.empty());
  EXPECT_EQ(coalescer.take().front().flags, 0x300U);
  EXPECT_TRUE(coalescer.empty());
}

TEST(Coalescer, CountsTheWindowFromItsFirstChange) {
  Coalescer coalescer;
  coalescer.add(0, "/x", 1, false);
  const auto opened = coalescer.opened();
  while (Coalescer::Clock::now() == opened) {
  }
  coalescer.add(0, "/y", 1, false);
  EXPECT_EQ(coalescer.opened(), opened);
}

TEST(Coalescer, VoidsItsNumbersWithEachWindow) {
  Coalescer coalescer;
  const std::size_t number = coalescer.add(0, "/x", 1, false);
  coalescer.merge(number, 2, false);
  const auto epoch = coalescer.epoch();
  EXPECT_EQ(coalescer.take().front().flags, 3U);
  EXPECT_NE(coalescer.epoch(), epoch);
}

class CoalescerBound : public testing::Test {
 protected:
  static constexpr std::size_t kBound = 100'000;
  static constexpr unsigned kStorm = 0;
  static constexpr unsigned kQuiet = 1;
  static constexpr unsigned kGivenUp = 0x3;  // MustScanSubDirs, UserDropped

  CoalescerBound() {
    EXPECT_EQ(coalescer.addTree(), kStorm);
    EXPECT_EQ(coalescer.addTree(), kQuiet);
    coalescer.setRoot(kStorm, "/storm", 0);
    coalescer.setRoot(kQuiet, "/quiet", 0);
  }
  void storm() {
    for (std::size_t i = 0; i < 10'000; ++i) coalescer.add(kStorm, "/storm/" + std::to_string(i), 0x100, false);
  }
  /// The flags by path, each path once.
  std::map<std::string, unsigned> take() {
    std::map<std::string, unsigned> told;
    for (const auto& event : coalescer.take()) EXPECT_TRUE(told.emplace(event.path, event.flags).second) << event.path;
    return told;
  }

  Coalescer coalescer{kBound};
};

TEST_F(CoalescerBound, HoldsWhileOneTreeReportsWithoutEnd) {
  for (std::size_t i = 0; i < 10'000; ++i) {
    coalescer.add(kStorm, "/storm/" + std::to_string(i), 0x100, false);
    ASSERT_LE(coalescer.bytes(), kBound);
  }
  EXPECT_EQ(coalescer.takeGivenUp(), std::vector<std::string>{"/storm"});
  EXPECT_THAT(take(), testing::ElementsAre(testing::Pair("/storm", kGivenUp)));
}

TEST_F(CoalescerBound, GivesUpOnlyTheTreeWhoseStormItIs) {
  coalescer.add(kQuiet, "/quiet/before", 0x100, false);
  storm();
  coalescer.add(kQuiet, "/quiet/after", 0x200, false);
  EXPECT_THAT(take(), testing::ElementsAre(testing::Pair("/quiet/after", 0x200U), testing::Pair("/quiet/before", 0x100U),
                                           testing::Pair("/storm", kGivenUp)));
}

TEST_F(CoalescerBound, KeepsWhatNoRescanFindsOut) {
  coalescer.add(kStorm, "/storm", 0x20, false);
  coalescer.add(kStorm, "/storm/mounted", 0x40, false);
  storm();
  coalescer.add(kStorm, "/storm/gone", 0x80, false);
  coalescer.add(kStorm, "/storm/file", 0x100, false);
  EXPECT_THAT(take(), testing::ElementsAre(testing::Pair("/storm", 0x20U | kGivenUp), testing::Pair("/storm/gone", 0x80U),
                                           testing::Pair("/storm/mounted", 0x40U)));
}

TEST_F(CoalescerBound, IsThereAnewForTheNextWindow) {
  storm();
  take();
  coalescer.add(kStorm, "/storm/file", 0x100, false);
  EXPECT_THAT(take(), testing::ElementsAre(testing::Pair("/storm/file", 0x100U)));
}

TEST_F(CoalescerBound, VoidsNumbersAndKeepsTheWindowsBeginning) {
  coalescer.add(kQuiet, "/quiet/a", 0x100, false);
  const auto opened = coalescer.opened();
  const auto epoch = coalescer.epoch();
  while (Coalescer::Clock::now() == opened) continue;
  storm();
  EXPECT_NE(coalescer.epoch(), epoch);
  EXPECT_EQ(coalescer.opened(), opened);
  const auto number = coalescer.add(kStorm, "/storm/more", 0x100, false);
  coalescer.merge(number, 0x200, true);
  coalescer.merge(coalescer.add(kQuiet, "/quiet/a", 0x200, false), 0x400, false);
  EXPECT_THAT(take(), testing::ElementsAre(testing::Pair("/quiet/a", 0x700U), testing::Pair("/storm", kGivenUp)));
}

TEST_F(CoalescerBound, GivesANumberAgainOnlyWhenItsWindowWasTaken) {
  storm();
  coalescer.removeTree(kStorm);
  EXPECT_EQ(coalescer.addTree(), 2U);
  EXPECT_THAT(take(), testing::ElementsAre(testing::Pair("/storm", kGivenUp)));
  EXPECT_EQ(coalescer.addTree(), kStorm);
  coalescer.add(kStorm, "/another", 0x100, false);
  EXPECT_THAT(take(), testing::ElementsAre(testing::Pair("/another", 0x100U)));
}

}  // namespace
}  // namespace kestrine::test
