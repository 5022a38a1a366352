#include "platform/concurrency/loop/WakeUp.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::WakeUp;

bool isReadable(const WakeUp& wakeUp) {
  pollfd entry{.fd = wakeUp.descriptor(), .events = POLLIN, .revents = 0};
  return poll(&entry, 1, 0) == 1;
}

TEST(WakeUp, AsksForNoWriteWhileTheSleeperIsAwake) {
  WakeUp wakeUp;
  EXPECT_FALSE(wakeUp.claim());
  wakeUp.fallAsleep();
  wakeUp.awake(false);
  EXPECT_FALSE(wakeUp.claim());
  EXPECT_FALSE(isReadable(wakeUp));
}

TEST(WakeUp, AsksForOneWriteASleep) {
  WakeUp wakeUp;
  for (int sleep = 0; sleep < 3; ++sleep) {
    wakeUp.fallAsleep();
    EXPECT_TRUE(wakeUp.claim());
    EXPECT_FALSE(wakeUp.claim());
    wakeUp.ring();
    EXPECT_TRUE(isReadable(wakeUp));
    wakeUp.awake(true);
    EXPECT_FALSE(isReadable(wakeUp));
  }
}

TEST(WakeUp, TakesARingThatThePollDidNotTellOf) {
  WakeUp wakeUp;
  wakeUp.fallAsleep();
  EXPECT_TRUE(wakeUp.claim());
  wakeUp.ring();
  wakeUp.awake(false);
  EXPECT_FALSE(isReadable(wakeUp));
}

TEST(WakeUp, TakesARingThatCameAfterItsSleepInTheNextOne) {
  WakeUp wakeUp;
  wakeUp.fallAsleep();
  EXPECT_TRUE(wakeUp.claim());
  wakeUp.awake(false);
  wakeUp.ring();
  wakeUp.fallAsleep();
  EXPECT_TRUE(isReadable(wakeUp));
  wakeUp.awake(true);
  EXPECT_FALSE(isReadable(wakeUp));
}

TEST(WakeUp, LosesNothingThatIsGivenUnderTheSleepersLock) {
  WakeUp wakeUp;
  std::mutex mutex;
  int given = 0;
  const int each = longOrShort(50000, 5000);
  constexpr int kGivers = 3;
  std::vector<std::thread> givers;
  givers.reserve(kGivers);
  for (int i = 0; i < kGivers; ++i) {
    givers.emplace_back([&] {
      for (int n = 0; n < each; ++n) {
        {
          const std::lock_guard lock(mutex);
          ++given;
          if (!wakeUp.claim()) continue;
        }
        wakeUp.ring();
      }
    });
  }
  int taken = 0;
  bool isStuck = false;
  while (taken < kGivers * each && !isStuck) {
    {
      const std::lock_guard lock(mutex);
      taken += std::exchange(given, 0);
      if (taken == kGivers * each) break;
      wakeUp.fallAsleep();
    }
    pollfd entry{.fd = wakeUp.descriptor(), .events = POLLIN, .revents = 0};
    isStuck = poll(&entry, 1, 30'000) == 0;
    wakeUp.awake(entry.revents != 0);
  }
  for (auto& giver : givers) giver.join();
  EXPECT_FALSE(isStuck) << "slept over what was given, with " << taken << " taken";
}

}  // namespace
}  // namespace kestrine::test
