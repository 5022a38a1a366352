#pragma once

#include <new>

#include "platform/foundation/base/FileHandle.h"

namespace platform {

/// What wakes a thread that sleeps in poll(2) or epoll(7): a descriptor (eventfd(2)) that is readable from `ring` to `clear`, however often
/// it was rung. Closed on exec, and neither call ever blocks.
///
/// Threads: any thread may ring and clear; its owner decides the lifetime.
class EventDescriptor {
 public:
  /// Throws std::system_error, which says why, when the system has no descriptor left.
  EventDescriptor();
  /// For those who can do without: then it is not open, rings for nobody, and leaves the reason in errno.
  explicit EventDescriptor(const std::nothrow_t& without) noexcept;

  [[nodiscard]] bool isOpen() const noexcept { return event_.isOpen(); }
  /// To be waited for, readable; -1 when it is not open.
  [[nodiscard]] int descriptor() const noexcept { return event_.fileDescriptor(); }

  void ring() const noexcept;
  void clear() const noexcept;

 private:
  const FileHandle event_;
};

}  // namespace platform
