#include "platform/foundation/value/Date.h"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

namespace platform {

Date Date::now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return {static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9};
}

std::string Date::description() const {
  // gmtime_r counts years in an int; beyond that (and for NaN) only the number itself can be shown.
  constexpr double kFarthest = 6.0e16;
  std::tm parts{};
  if (!(std::abs(timeIntervalSince1970) < kFarthest)) return fmt::format("{} seconds since 1970", timeIntervalSince1970);
  const auto seconds = static_cast<std::time_t>(std::floor(timeIntervalSince1970));
  if (gmtime_r(&seconds, &parts) == nullptr) return fmt::format("{} seconds since 1970", timeIntervalSince1970);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", parts.tm_year + 1900L, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                     parts.tm_min, parts.tm_sec);
}

}  // namespace platform
