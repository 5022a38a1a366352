#include "platform/concurrency/loop/RunLoopDescriptor.h"

#include <sys/epoll.h>

#include <utility>

#include "platform/concurrency/loop/RunLoopItemCore.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/SystemError.h"

namespace platform {

namespace {

class DescriptorItem final : public RunLoopItemOf<RunLoopDescriptor> {
 public:
  DescriptorItem(int descriptor, unsigned events, std::function<void(unsigned)> perform)
      : RunLoopItemOf(std::move(perform)), descriptor_(descriptor), events_(events & kWanted) {}

  void setEvents(unsigned events) override EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    events_ = events & kWanted;
    if (!valid_) return;
    if (const auto loop = loop_.lock()) loop->rewatch(serial(), descriptor_, events_);
  }

 private:
  static constexpr unsigned kWanted = EPOLLIN | EPOLLOUT | EPOLLPRI | EPOLLRDHUP;
  static constexpr unsigned kAlwaysTold = EPOLLERR | EPOLLHUP;

  void entered(RunLoopItemHost& loop) override REQUIRES(mutex_) {
    const int error = loop.watch(serial(), descriptor_, events_);
    if (error != 0) throw Exception(NSInvalidArgumentException, "a run loop cannot watch this descriptor: " + errnoText(error));
  }
  void leaving(RunLoopItemHost& loop) override REQUIRES(mutex_) { loop.unwatch(descriptor_); }
  unsigned admit(unsigned ready) override REQUIRES(mutex_) { return ready & (events_ | kAlwaysTold); }

  const int descriptor_;
  unsigned events_ GUARDED_BY(mutex_);
};

}  // namespace

std::shared_ptr<RunLoopDescriptor> RunLoopDescriptor::create(int descriptor, unsigned events, std::function<void(unsigned)> perform) {
  return std::make_shared<DescriptorItem>(descriptor, events, std::move(perform));
}

}  // namespace platform
