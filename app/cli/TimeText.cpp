#include "app/cli/TimeText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ctime>

namespace kestrine {

namespace {

struct BrokenDown {
  std::tm fields{};
  int milliseconds = 0;
};

BrokenDown breakDown(platform::Date date, std::tm* (*convert)(const std::time_t*, std::tm*)) {
  // Rounded down, so that a text never names a time that has not come.
  const auto total = static_cast<std::int64_t>(std::floor(date.timeIntervalSince1970 * 1000));
  BrokenDown result;
  result.milliseconds = static_cast<int>((total % 1000 + 1000) % 1000);
  const auto seconds = static_cast<std::time_t>((total - result.milliseconds) / 1000);
  convert(&seconds, &result.fields);
  return result;
}

std::string format(const BrokenDown& time, char separator, std::string_view end) {
  const std::tm& t = time.fields;
  return fmt::format("{:04}-{:02}-{:02}{}{:02}:{:02}:{:02}.{:03}{}", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, separator, t.tm_hour,
                     t.tm_min, t.tm_sec, time.milliseconds, end);
}

}  // namespace

std::string localTimeText(platform::Date date) { return format(breakDown(date, localtime_r), ' ', ""); }

std::string universalTimeText(platform::Date date) { return format(breakDown(date, gmtime_r), 'T', "Z"); }

std::string durationText(double seconds) {
  constexpr double kMinute = 60;
  constexpr double kHour = 60 * kMinute;
  constexpr double kDay = 24 * kHour;
  if (seconds < 2 * kMinute) return fmt::format("{} s", static_cast<long>(std::max(0.0, seconds)));
  if (seconds < 2 * kHour) return fmt::format("{} min", static_cast<long>(seconds / kMinute));
  if (seconds < 2 * kDay) return fmt::format("{} h", static_cast<long>(seconds / kHour));
  return fmt::format("{} days", static_cast<long>(seconds / kDay));
}

}  // namespace kestrine
