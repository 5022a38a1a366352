#pragma once

#include <memory>

// Calls that occupy a thread of the process for as long as they like.
namespace platform::xpc {

/// A place among the calls that may be running at once in the process. Each takes a thread, and one that watches something does not return,
/// so peers could otherwise use up the process's threads. Threads: any.
class RunningCall {
 public:
  static constexpr int kMaximum = 512;
  /// Nothing when there are too many. The call has ended when the last reference is gone.
  [[nodiscard]] static std::shared_ptr<void> begin();
};

}  // namespace platform::xpc
