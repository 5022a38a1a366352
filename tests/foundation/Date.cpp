#include "platform/foundation/value/Date.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>

namespace platform {
namespace {

TEST(Date, DescribesItselfInUTCInWholeSeconds) {
  EXPECT_EQ(Date{0}.description(), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(Date{951782400}.description(), "2000-02-29 00:00:00 +0000");
  EXPECT_EQ(Date{1795250280}.description(), "2026-11-21 08:38:00 +0000");
  EXPECT_EQ(Date{1795250280.999}.description(), "2026-11-21 08:38:00 +0000");
  EXPECT_EQ(Date{253402300799}.description(), "9999-12-31 23:59:59 +0000");
}

TEST(Date, BeforeTheEpochBelongsToTheSecondThatHasBegun) { EXPECT_EQ(Date{-0.5}.description(), "1969-12-31 23:59:59 +0000"); }

TEST(Date, DoesNotDependOnTheTimeZone) {
  setenv("TZ", "Asia/Tokyo", 1);
  tzset();
  EXPECT_EQ(Date{0}.description(), "1970-01-01 00:00:00 +0000");
}

TEST(Date, BeyondTheCalendarShowsItsNumber) {
  EXPECT_EQ(Date{1e300}.description(), "1e+300 seconds since 1970");
  EXPECT_EQ(Date{6.9e16}.description(), "6.9e+16 seconds since 1970");
  EXPECT_EQ(Date{std::nan("")}.description(), "nan seconds since 1970");
}

TEST(Date, NowLiesBetweenTwoReadingsOfTheClock) {
  const auto reading = [] { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); };
  const double before = reading();
  const Date now = Date::now();
  const double after = reading();
  // A microsecond for the rounding of large numbers of seconds.
  EXPECT_GE(now.timeIntervalSince1970, before - 1e-6);
  EXPECT_LE(now.timeIntervalSince1970, after + 1e-6);
}

TEST(Date, IsOrderedByTime) {
  EXPECT_LT(Date{1}, Date{1.5});
  EXPECT_EQ(Date{2}, Date{2});
}

}  // namespace
}  // namespace platform
