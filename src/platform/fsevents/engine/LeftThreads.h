#pragma once

#include <functional>
#include <thread>

namespace platform::fsevents {

/// Threads that their owner could not wait for, since they hang in a system call that nobody can end. They stay reachable here and are
/// joined when they have ended, which is looked at whenever one is left or `collect` is called. Each must hold whatever it touches.
/// Threads: any.
class LeftThreads {
 public:
  /// `hasEnded` says whether joining would not wait.
  static void leave(std::thread thread, std::function<bool()> hasEnded);
  static void collect();
};

}  // namespace platform::fsevents
