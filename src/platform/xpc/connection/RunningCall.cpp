#include "platform/xpc/connection/RunningCall.h"

#include <atomic>

namespace platform::xpc {

std::shared_ptr<void> RunningCall::begin() {
  static std::atomic<int> running{0};
  if (running.fetch_add(1) >= kMaximum) {
    --running;
    return nullptr;
  }
  return {&running, [](void* counter) { --*static_cast<std::atomic<int>*>(counter); }};
}

}  // namespace platform::xpc
