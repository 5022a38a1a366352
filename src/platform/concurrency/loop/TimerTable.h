#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <unordered_map>
#include <utility>

#include "platform/concurrency/loop/RunLoopItemHost.h"

namespace platform {

/// The timers of a loop, by the time at which they are due and by their item. A value without a lock of its own; nothing in it costs more
/// than the logarithm of their number.
class TimerTable {
 public:
  using TimePoint = RunLoopItemHost::TimePoint;
  using Nanoseconds = std::chrono::nanoseconds;

  /// Due at `first`, and then each `interval` when that is above zero. An item has one timer.
  void arm(ItemSerial item, TimePoint first, Nanoseconds interval);
  void cancel(ItemSerial item);
  void clear();
  [[nodiscard]] std::size_t size() const { return byItem_.size(); }
  /// When the next one is due; nothing when there is none.
  [[nodiscard]] std::optional<TimePoint> next() const;
  /// The item whose timer is due first, unless that is after `now`. A timer that repeats is due again after `now`: periods that have passed
  /// are skipped. Any other is forgotten.
  std::optional<ItemSerial> takeDue(TimePoint now);

 private:
  std::map<std::pair<TimePoint, ItemSerial>, Nanoseconds> byTime_;
  std::unordered_map<ItemSerial, TimePoint> byItem_;
};

}  // namespace platform
