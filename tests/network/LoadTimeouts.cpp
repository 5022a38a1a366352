#include "platform/network/load/LoadTimeouts.h"

#include <gtest/gtest.h>

#include <cmath>

namespace kestrine::test {
namespace {

using platform::network::LoadTimeouts;
using std::chrono::seconds;

const LoadTimeouts::Clock::time_point kStart(seconds(1000));

TEST(LoadTimeouts, OfSilenceAreCountedFromWhatWasHeardLast) {
  LoadTimeouts timeouts(10, 0, kStart);
  EXPECT_EQ(timeouts.next(), kStart + seconds(10));
  EXPECT_FALSE(timeouts.passed(kStart + seconds(9)));
  timeouts.heard(kStart + seconds(9));
  EXPECT_EQ(timeouts.next(), kStart + seconds(19));
  EXPECT_FALSE(timeouts.passed(kStart + seconds(18)));
  ASSERT_TRUE(timeouts.passed(kStart + seconds(19)));
  EXPECT_EQ(timeouts.passed(kStart + seconds(19))->code, -1001);
  EXPECT_EQ(timeouts.passed(kStart + seconds(19))->detail, "");
}

TEST(LoadTimeouts, OfTheWholeComeWhateverIsHeard) {
  LoadTimeouts timeouts(10, 30, kStart);
  for (int second = 5; second < 30; second += 5) {
    timeouts.heard(kStart + seconds(second));
    EXPECT_FALSE(timeouts.passed(kStart + seconds(second))) << second;
  }
  EXPECT_EQ(timeouts.next(), kStart + seconds(30));
  ASSERT_TRUE(timeouts.passed(kStart + seconds(30)));
  EXPECT_EQ(timeouts.passed(kStart + seconds(30))->detail, "the whole took too long");
}

TEST(LoadTimeouts, AreNoneForNothingForLessAndForNoNumber) {
  for (const double none : {0.0, -1.0, std::nan("")}) {
    const LoadTimeouts timeouts(none, none, kStart);
    EXPECT_FALSE(timeouts.next()) << none;
    EXPECT_FALSE(timeouts.passed(kStart + seconds(1'000'000))) << none;
    EXPECT_EQ(LoadTimeouts::shorter(none, 7), 7) << none;
    EXPECT_EQ(LoadTimeouts::shorter(7, none), 7) << none;
  }
  EXPECT_EQ(LoadTimeouts::shorter(8, 7), 7);
}

TEST(LoadTimeouts, AreNeverBeyondWhatTheClockCanSay) {
  const LoadTimeouts timeouts(1e300, HUGE_VAL, kStart);
  EXPECT_EQ(timeouts.next(), kStart + std::chrono::hours(24 * 365 * 30));
  EXPECT_FALSE(timeouts.passed(kStart + seconds(1'000'000)));
}

}  // namespace
}  // namespace kestrine::test
