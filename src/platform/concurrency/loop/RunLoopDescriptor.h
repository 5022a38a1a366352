#pragma once

#include <functional>
#include <memory>

#include "platform/concurrency/loop/RunLoopItem.h"

namespace platform {

/// Runs its callback on the loop when the descriptor (not owned) is ready for `events` (EPOLLIN, EPOLLOUT), level-triggered; errors and
/// hang-ups are always told. The callback receives what is ready. The descriptor must stay open until the item is invalidated, and a loop
/// takes one item per descriptor: `add` throws Exception(NSInvalidArgumentException) for a second one and for what epoll(7) cannot watch,
/// such as regular files.
class RunLoopDescriptor : public RunLoopItem {
 public:
  static std::shared_ptr<RunLoopDescriptor> create(int descriptor, unsigned events, std::function<void(unsigned ready)> perform);
  virtual void setEvents(unsigned events) = 0;
};

}  // namespace platform
