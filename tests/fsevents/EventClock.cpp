#include "platform/fsevents/event/EventClock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <set>
#include <thread>
#include <vector>

namespace kestrine::test {
namespace {

using platform::fsevents::EventClock;

/// Milliseconds since 1970 stand above 22 bits of sequence: applications store identifiers, so this never changes.
std::uint64_t milliseconds(platform::FSEventStreamEventId id) { return id >> 22U; }

TEST(EventClock, PutsTheTimeInMillisecondsAboveTwentyTwoBits) {
  timespec time{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &time);
  const std::uint64_t now = static_cast<std::uint64_t>(time.tv_sec) * 1000;
  const std::uint64_t told = milliseconds(EventClock::shared().current());
  EXPECT_LT(told, now + 60'000);
  EXPECT_GT(told, now - 60'000);
}

TEST(EventClock, GivesEachIdentifierOnceToAnyNumberOfThreads) {
  EventClock::Member member([] {});
  std::vector<std::vector<platform::FSEventStreamEventId>> seen(4);
  std::vector<std::thread> threads;
  threads.reserve(seen.size());
  for (auto& mine : seen) {
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) mine.push_back(EventClock::shared().reserve(member, 3, EventClock::now()));
    });
  }
  for (auto& thread : threads) thread.join();
  std::set<platform::FSEventStreamEventId> all;
  for (const auto& mine : seen) {
    for (std::size_t i = 1; i < mine.size(); ++i) EXPECT_GT(mine[i], mine[i - 1]);
    for (const auto first : mine) {
      for (unsigned k = 0; k < 3; ++k) EXPECT_TRUE(all.insert(first + k).second);
    }
  }
}

/// In a process of its own, because the clock of a process never goes back and this looks far ahead, past every other test's identifiers.
int checkSlowestStreamWins() {
  EventClock::Member slow([] {});
  EventClock::Member fast([] {});
  EventClock& clock = EventClock::shared();
  const std::uint64_t held = EventClock::now() + 1'000'000;
  slow.deliveredUpTo(held);
  if (milliseconds(clock.reserve(fast, 1, held + 5000)) > held) return 1;
  if (milliseconds(clock.current()) > held) return 2;
  slow.everythingDelivered(held + 6000);
  return milliseconds(clock.reserve(fast, 1, held + 7000)) == held + 7000 ? 0 : 3;
}

TEST(EventClock, IsNeverLaterThanWhatAStreamStillHolds) {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(std::_Exit(checkSlowestStreamWins()), ::testing::ExitedWithCode(0), "");
}

TEST(EventClock, AsksEveryStreamToLookBeforeItAnswers) {
  std::atomic<int> asked{0};
  EventClock::Member one([&] { ++asked; });
  EventClock::Member two([&] { ++asked; });
  EventClock::shared().current();
  EXPECT_EQ(asked, 2);
}

TEST(EventClock, GivesLaterIdentifiersAboveWhatItToldAsCurrent) {
  EventClock::Member member([] {});
  const auto before = EventClock::shared().current();
  EXPECT_GT(EventClock::shared().reserve(member, 1, EventClock::now()), before);
}

}  // namespace
}  // namespace kestrine::test
