#include <sys/epoll.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/concurrency/EventLoop.h"
#include "platform/concurrency/LoopClock.h"
#include "platform/concurrency/LoopItem.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/foundation/base/Exception.h"

namespace platform {

namespace {

/// A public kind of item on the shared machinery.
template <class Kind>
class Scheduled : public Kind, public LoopItem {
 public:
  using LoopItem::LoopItem;
  void invalidate() final { retireAndWait(); }
  [[nodiscard]] bool isValid() const final { return valid(); }
};

LoopItem::Callback ignoringReady(std::function<void()> perform) {
  return [perform = std::move(perform)](unsigned) {
    if (perform) perform();
  };
}

class SourceItem final : public Scheduled<RunLoopSource> {
 public:
  using Scheduled::Scheduled;

  void signal() override {
    const std::lock_guard lock(mutex_);
    if (!valid_ || std::exchange(signalled_, true)) return;
    if (const auto loop = loop_.lock()) loop->queueSignal(serial());
  }

 private:
  void entered(EventLoop& loop) override {
    if (signalled_) loop.queueSignal(serial());
  }
  unsigned admit(unsigned /*ready*/) override { return std::exchange(signalled_, false) ? 1 : 0; }

  bool signalled_ = false;
};

class TimerItem final : public Scheduled<RunLoopTimer> {
 public:
  TimerItem(double seconds, double interval, std::function<void()> perform)
      : Scheduled(ignoringReady(std::move(perform))),
        first_(EventLoop::Clock::now() + loopDuration(seconds)),
        interval_(loopDuration(interval)) {}

 private:
  void entered(EventLoop& loop) override { loop.arm(serial(), first_, interval_); }
  [[nodiscard]] bool firesOnce() const override { return interval_.count() == 0; }

  const EventLoop::TimePoint first_;
  const EventLoop::Nanoseconds interval_;
};

class DescriptorItem final : public Scheduled<RunLoopDescriptor> {
 public:
  DescriptorItem(int descriptor, unsigned events, std::function<void(unsigned)> perform)
      : Scheduled(std::move(perform)), descriptor_(descriptor), events_(events & kWanted) {}

  void setEvents(unsigned events) override {
    const std::lock_guard lock(mutex_);
    events_ = events & kWanted;
    if (!valid_) return;
    if (const auto loop = loop_.lock()) control(*loop, EPOLL_CTL_MOD);
  }

 private:
  static constexpr unsigned kWanted = EPOLLIN | EPOLLOUT | EPOLLPRI | EPOLLRDHUP;
  static constexpr unsigned kAlwaysTold = EPOLLERR | EPOLLHUP;

  void entered(EventLoop& loop) override {
    if (control(loop, EPOLL_CTL_ADD) == 0) return;
    throw Exception(NSInvalidArgumentException, "a run loop cannot watch this descriptor: " + std::generic_category().message(errno));
  }
  void leaving(EventLoop& loop) override { control(loop, EPOLL_CTL_DEL); }
  unsigned admit(unsigned ready) override { return ready & (events_ | kAlwaysTold); }

  int control(EventLoop& loop, int operation) const {
    epoll_event event{.events = events_, .data = {.u64 = serial()}};
    return epoll_ctl(loop.epollDescriptor(), operation, descriptor_, &event);
  }

  const int descriptor_;
  unsigned events_;
};

}  // namespace

RunLoopItem::~RunLoopItem() = default;

std::shared_ptr<RunLoopSource> RunLoopSource::create(std::function<void()> perform) {
  return std::make_shared<SourceItem>(ignoringReady(std::move(perform)));
}

std::shared_ptr<RunLoopTimer> RunLoopTimer::create(double seconds, double interval, std::function<void()> perform) {
  return std::make_shared<TimerItem>(seconds, interval, std::move(perform));
}

std::shared_ptr<RunLoopDescriptor> RunLoopDescriptor::create(int descriptor, unsigned events, std::function<void(unsigned)> perform) {
  return std::make_shared<DescriptorItem>(descriptor, events, std::move(perform));
}

}  // namespace platform
