#include "platform/network/load/LoadTimeouts.h"

#include <algorithm>

#include "platform/network/message/URLError.h"

namespace platform::network {

namespace {

/// Far below what nanoseconds of a clock hold, so that adding one to a time cannot overflow.
constexpr double kLongest = 30.0 * 365 * 24 * 60 * 60;

std::optional<LoadTimeouts::Clock::duration> durationOf(double seconds) {
  if (!(seconds > 0)) return std::nullopt;
  return std::chrono::duration_cast<LoadTimeouts::Clock::duration>(std::chrono::duration<double>(std::min(seconds, kLongest)));
}

}  // namespace

LoadTimeouts::LoadTimeouts(double silence, double whole, Clock::time_point now) : silence_(durationOf(silence)), lastHeard_(now) {
  if (const auto length = durationOf(whole)) end_ = now + *length;
}

double LoadTimeouts::shorter(double a, double b) {
  if (!(a > 0)) return b;
  return b > 0 ? std::min(a, b) : a;
}

std::optional<LoadTimeouts::Clock::time_point> LoadTimeouts::next() const {
  if (!silence_) return end_;
  return std::min(end_.value_or(Clock::time_point::max()), lastHeard_ + *silence_);
}

std::optional<LoadFailure> LoadTimeouts::passed(Clock::time_point now) const {
  if (end_ && now >= *end_) return LoadFailure{NSURLErrorTimedOut, "the whole took too long"};
  if (silence_ && now >= lastHeard_ + *silence_) return LoadFailure{NSURLErrorTimedOut};
  return std::nullopt;
}

}  // namespace platform::network
