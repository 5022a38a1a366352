#pragma once

#include <functional>
#include <memory>

#include "platform/concurrency/loop/RunLoopItem.h"

namespace platform {

/// Runs its callback on the loop once after `seconds`, or first then and every `interval` seconds when that is above zero. By
/// CLOCK_MONOTONIC, counted from `create`; never early. Periods that passed unserved are skipped. A timer that runs once is invalid when
/// its callback begins.
class RunLoopTimer : public RunLoopItem {
 public:
  static std::shared_ptr<RunLoopTimer> create(double seconds, double interval, std::function<void()> perform);
};

}  // namespace platform
