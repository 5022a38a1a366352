#pragma once

#include <sys/types.h>

#include <memory>

// Calls that occupy a thread of the process for as long as they like.
namespace platform::xpc {

/// A place among the calls that may be running at once in the process. Each takes a thread, and one that watches something does not return,
/// so peers could otherwise use up the process's threads, and one client the share of the others. Threads: any.
class RunningCall {
 public:
  static constexpr int kMaximum = 512;
  /// Of one client process.
  static constexpr int kMaximumOfOne = 384;
  /// A client that has no more than these is served although there are too many, up to twice as many.
  static constexpr int kAlways = 8;
  /// Nothing when there are too many. `client` is its process, 0 for all that have no number here. The call has ended when the last
  /// reference is gone.
  [[nodiscard]] static std::shared_ptr<void> begin(pid_t client);
};

}  // namespace platform::xpc
