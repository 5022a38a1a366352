#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/concurrency/RunLoop.h"

namespace platform {

/// A thread that serves its run loop and nothing else, from its making to the end of the process: the one behind all sockets of a room. It
/// has all signals blocked, since they are for the process's other threads. A failure that reaches it is said in the log and ends there.
///
/// Made once and never destroyed (static T& x = *new T). Threads: any thread may call anything.
class ServingThread {
 public:
  /// `name`: the thread's, up to 15 characters. `failure`: what the log says before a failure's reason.
  ServingThread(const char* name, std::string failure);
  ServingThread(const ServingThread&) = delete;
  ServingThread& operator=(const ServingThread&) = delete;

  [[nodiscard]] RunLoop& loop() const { return *loop_; }
  /// Runs `block` on the thread; blocks run in the order given, and are destroyed there.
  void perform(std::function<void()> block) const;
  /// Halts the thread for ever after what it has to do now, and waits for that, but not for long. For the end of the process, before its
  /// libraries are taken down under the thread. Does nothing when the caller is the thread itself.
  void park() const;

 private:
  const std::string failure_;
  std::shared_ptr<RunLoop> loop_;
};

}  // namespace platform
