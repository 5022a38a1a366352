#pragma once

#include <optional>
#include <utility>

#include "platform/reachability/ReachabilityTarget.h"

namespace kestrine::test {

/// A target whose flags a test says: Linux has no network that needs a connection to be made first, so no real target has those flags.
class FixedTarget final : public platform::ReachabilityTarget {
 public:
  explicit FixedTarget(std::optional<platform::NetworkReachabilityFlags> flags) : flags_(flags) {}

  [[nodiscard]] std::optional<platform::NetworkReachabilityFlags> flags() const override { return flags_; }
  bool setCallback(Callback callback) override {
    callback_ = std::move(callback);
    return acceptsCallback;
  }
  bool scheduleWithRunLoop(const std::shared_ptr<platform::RunLoop>&) override {
    if (acceptsSchedule) ++schedules;
    return acceptsSchedule;
  }
  bool unscheduleFromRunLoop(const std::shared_ptr<platform::RunLoop>&) override {
    if (schedules == 0) return false;
    --schedules;
    return true;
  }
  [[nodiscard]] bool isScheduled() const override { return schedules > 0; }

  void change() { callback_(*this, 0); }

  bool acceptsCallback = true;
  bool acceptsSchedule = true;
  int schedules = 0;

 private:
  std::optional<platform::NetworkReachabilityFlags> flags_;
  Callback callback_;
};

}  // namespace kestrine::test
