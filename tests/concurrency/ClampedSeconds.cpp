#include "platform/concurrency/loop/ClampedSeconds.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace kestrine::test {
namespace {

using namespace std::chrono_literals;
using platform::clampedSeconds;

TEST(ClampedSeconds, AreWholeNanosecondsRoundedUp) {
  EXPECT_EQ(clampedSeconds(1.5), 1500ms);
  EXPECT_EQ(clampedSeconds(1e-9), 1ns);
  EXPECT_EQ(clampedSeconds(1.2e-9), 2ns);
  EXPECT_EQ(clampedSeconds(1e-300), 1ns);
}

TEST(ClampedSeconds, AreNothingBelowZeroAndForWhatIsNoNumber) {
  for (const double seconds : {0.0, -0.0, -1.0, -std::numeric_limits<double>::infinity(), std::nan("")}) {
    EXPECT_EQ(clampedSeconds(seconds), 0ns) << seconds;
  }
}

TEST(ClampedSeconds, CanAlwaysBeAddedToAPointInTime) {
  for (const double seconds : {1e9, 1e18, 1e300, std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(clampedSeconds(seconds), 30 * 366 * 24h) << seconds;
  }
  EXPECT_GT(std::chrono::steady_clock::now() + clampedSeconds(1e300), std::chrono::steady_clock::now());
}

}  // namespace
}  // namespace kestrine::test
