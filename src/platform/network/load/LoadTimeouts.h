#pragma once

#include <chrono>
#include <optional>

#include "platform/network/load/LoadFailure.h"

// Internal to the network room.
namespace platform::network {

/// The two time-outs of a load: how long nothing may happen, and how long the whole may take. Knows the limits and what time it was when
/// something happened last; whoever asks brings the time. One thread at a time.
class LoadTimeouts {
 public:
  using Clock = std::chrono::steady_clock;

  /// No limits.
  LoadTimeouts() = default;
  /// In seconds, from `now` on. Zero or less, or no number: no such limit. A limit of more than some thirty years is one of thirty.
  LoadTimeouts(double silence, double whole, Clock::time_point now);

  /// The shorter one of two such limits.
  static double shorter(double a, double b);

  /// Something happened.
  void heard(Clock::time_point now) { lastHeard_ = now; }
  /// When to look next; nothing without limits.
  [[nodiscard]] std::optional<Clock::time_point> next() const;
  /// The load's end when a limit has passed.
  [[nodiscard]] std::optional<LoadFailure> passed(Clock::time_point now) const;

 private:
  std::optional<Clock::duration> silence_;
  std::optional<Clock::time_point> end_;
  Clock::time_point lastHeard_;
};

}  // namespace platform::network
