#pragma once

#include <sys/epoll.h>

#include <chrono>
#include <optional>
#include <span>

#include "platform/concurrency/loop/RunLoopItemHost.h"
#include "platform/foundation/base/FileHandle.h"

namespace platform {

/// epoll(7): which descriptors are ready, each told by the number it was given under. Threads: any for what changes the descriptors, also
/// while another one waits.
class Poller {
 public:
  /// Throws std::system_error when the system has no descriptors left.
  Poller();

  /// Level-triggered, for events as of epoll_ctl(2). An error number, or 0.
  int watch(ItemSerial number, int descriptor, unsigned events) const;
  int rewatch(ItemSerial number, int descriptor, unsigned events) const;
  void unwatch(int descriptor) const;

  /// Sleeps until something is ready or `limit` has passed, to the nanosecond where the kernel can; for ever without a limit. What is
  /// ready, as much as there is room for: data.u64 is the number. Nothing when a signal came. Throws std::system_error.
  std::span<epoll_event> wait(std::span<epoll_event> room, std::optional<std::chrono::nanoseconds> limit) const;

 private:
  const FileHandle epoll_;
};

}  // namespace platform
