#include "platform/concurrency/loop/RunLoopTimer.h"

#include <utility>

#include "platform/concurrency/loop/ClampedSeconds.h"
#include "platform/concurrency/loop/RunLoopItemCore.h"

namespace platform {

namespace {

class TimerItem final : public RunLoopItemOf<RunLoopTimer> {
 public:
  TimerItem(double seconds, double interval, std::function<void()> perform)
      : RunLoopItemOf(withoutReady(std::move(perform))),
        first_(std::chrono::steady_clock::now() + clampedSeconds(seconds)),
        interval_(clampedSeconds(interval)) {}

 private:
  void entered(RunLoopItemHost& loop) override REQUIRES(mutex_) { loop.arm(serial(), first_, interval_); }
  [[nodiscard]] bool firesOnce() const override { return interval_.count() == 0; }

  const RunLoopItemHost::TimePoint first_;
  const std::chrono::nanoseconds interval_;
};

}  // namespace

std::shared_ptr<RunLoopTimer> RunLoopTimer::create(double seconds, double interval, std::function<void()> perform) {
  return std::make_shared<TimerItem>(seconds, interval, std::move(perform));
}

}  // namespace platform
