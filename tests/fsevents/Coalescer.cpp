#include "platform/fsevents/Coalescer.h"

#include <gtest/gtest.h>

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

TEST(Coalescer, SaysWhenAWindowHoldsTooManyPaths) {
  Coalescer coalescer;
  for (std::size_t i = 0; i + 1 < Coalescer::kMaximumPaths; ++i) coalescer.add(0, std::to_string(i), 1, false);
  EXPECT_FALSE(coalescer.isFull());
  coalescer.add(0, "one more", 1, false);
  EXPECT_TRUE(coalescer.isFull());
}

}  // namespace
}  // namespace kestrine::test
