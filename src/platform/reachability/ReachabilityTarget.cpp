#include "platform/reachability/ReachabilityTarget.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/foundation/base/Mutex.h"
#include "platform/reachability/ReachabilityEndpoint.h"
#include "platform/reachability/ReachabilitySchedule.h"

namespace platform {

namespace {

/// A target whose flags come from the kernel's routing tables.
class RoutedTarget final : public ReachabilityTarget, public std::enable_shared_from_this<RoutedTarget> {
 public:
  explicit RoutedTarget(ReachabilityEndpoint endpoint) : endpoint_(std::move(endpoint)) {}
  ~RoutedTarget() override {
    for (const auto& schedule : schedules_) schedule->end();
  }
  RoutedTarget(const RoutedTarget&) = delete;
  RoutedTarget& operator=(const RoutedTarget&) = delete;

  [[nodiscard]] std::optional<NetworkReachabilityFlags> flags() const override { return endpoint_.flags(); }

  bool setCallback(Callback callback) override EXCLUDES(mutex_) {
    auto shared = callback ? std::make_shared<const Callback>(std::move(callback)) : nullptr;
    const MutexLock lock(mutex_);
    // The former one is released outside the lock, with `shared`.
    callback_.swap(shared);
    return true;
  }

  bool scheduleWithRunLoop(const std::shared_ptr<RunLoop>& runLoop) override EXCLUDES(mutex_) {
    // A target that is being let go of calls nobody any more.
    auto schedule = ReachabilitySchedule::begin(endpoint_, runLoop, [observer = weak_from_this()](NetworkReachabilityFlags flags) {
      if (const auto self = observer.lock()) self->call(flags);
    });
    if (!schedule) return false;
    const MutexLock lock(mutex_);
    schedules_.push_back(std::move(schedule));
    return true;
  }

  bool unscheduleFromRunLoop(const std::shared_ptr<RunLoop>& runLoop) override EXCLUDES(mutex_) {
    std::shared_ptr<ReachabilitySchedule> schedule;
    {
      const MutexLock lock(mutex_);
      const auto found =
          std::find_if(schedules_.begin(), schedules_.end(), [&runLoop](const auto& each) { return each->isOn(runLoop.get()); });
      if (found == schedules_.end()) return false;
      schedule = std::move(*found);
      schedules_.erase(found);
    }
    schedule->end();
    return true;
  }

  [[nodiscard]] bool isScheduled() const override EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return !schedules_.empty();
  }

 private:
  void call(NetworkReachabilityFlags flags) const EXCLUDES(mutex_) {
    std::shared_ptr<const Callback> callback;
    {
      const MutexLock lock(mutex_);
      callback = callback_;
    }
    if (callback) (*callback)(*this, flags);
  }

  const ReachabilityEndpoint endpoint_;
  mutable Mutex mutex_;
  std::shared_ptr<const Callback> callback_ GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<ReachabilitySchedule>> schedules_ GUARDED_BY(mutex_);
};

std::shared_ptr<ReachabilityTarget> targetAt(std::optional<ReachabilityEndpoint> endpoint) {
  return endpoint ? std::make_shared<RoutedTarget>(*std::move(endpoint)) : nullptr;
}

}  // namespace

ReachabilityTarget::~ReachabilityTarget() = default;

std::shared_ptr<ReachabilityTarget> ReachabilityTarget::createWithAddress(const sockaddr* address) {
  return targetAt(ReachabilityEndpoint::ofAddress(address));
}

std::shared_ptr<ReachabilityTarget> ReachabilityTarget::createWithName(std::string_view name) {
  return targetAt(ReachabilityEndpoint::ofName(name));
}

}  // namespace platform
