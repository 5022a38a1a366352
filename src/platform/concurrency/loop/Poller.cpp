#include "platform/concurrency/loop/Poller.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <system_error>

namespace platform {

namespace {

using std::chrono::nanoseconds;

timespec toTimespec(nanoseconds duration) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
  return {.tv_sec = static_cast<time_t>(seconds.count()), .tv_nsec = static_cast<long>((duration - seconds).count())};
}

/// epoll_pwait2(2), and epoll_wait(2), rounded up, where the kernel (before 5.11) or a sandbox does not have it.
int waitForEvents(int epoll, std::span<epoll_event> room, std::optional<nanoseconds> limit) {
  const int size = static_cast<int>(room.size());
  if (!limit) return epoll_wait(epoll, room.data(), size, -1);
  if (limit->count() <= 0) return epoll_wait(epoll, room.data(), size, 0);
  static std::atomic<bool> fine = true;
  if (fine.load(std::memory_order_relaxed)) {
    const timespec time = toTimespec(*limit);
    const int count = epoll_pwait2(epoll, room.data(), size, &time, nullptr);
    if (count >= 0 || (errno != ENOSYS && errno != EPERM)) return count;
    fine = false;
  }
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(*limit).count();
  return epoll_wait(epoll, room.data(), size, static_cast<int>(std::min<std::int64_t>(milliseconds, 1 << 30)));
}

int control(const FileHandle& epoll, int operation, ItemSerial number, int descriptor, unsigned events) {
  epoll_event event{.events = events, .data = {.u64 = number}};
  return epoll_ctl(epoll.fileDescriptor(), operation, descriptor, &event) == 0 ? 0 : errno;
}

}  // namespace

Poller::Poller() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_.isOpen()) throw std::system_error(errno, std::system_category(), "epoll_create1");
}

int Poller::watch(ItemSerial number, int descriptor, unsigned events) const {
  return control(epoll_, EPOLL_CTL_ADD, number, descriptor, events);
}

int Poller::rewatch(ItemSerial number, int descriptor, unsigned events) const {
  return control(epoll_, EPOLL_CTL_MOD, number, descriptor, events);
}

void Poller::unwatch(int descriptor) const { control(epoll_, EPOLL_CTL_DEL, 0, descriptor, 0); }

std::span<epoll_event> Poller::wait(std::span<epoll_event> room, std::optional<nanoseconds> limit) const {
  const int count = waitForEvents(epoll_.fileDescriptor(), room, limit);
  if (count < 0 && errno != EINTR) throw std::system_error(errno, std::system_category(), "epoll_wait");
  return room.first(static_cast<std::size_t>(std::max(count, 0)));
}

}  // namespace platform
