#include "platform/concurrency/loop/ClampedSeconds.h"

#include <algorithm>
#include <cmath>

namespace platform {

std::chrono::nanoseconds clampedSeconds(double seconds) {
  constexpr double kMost = 30.0 * 366 * 86400;
  if (!(seconds > 0)) return std::chrono::nanoseconds(0);
  return std::chrono::nanoseconds(static_cast<std::int64_t>(std::ceil(std::min(seconds, kMost) * 1e9)));
}

}  // namespace platform
