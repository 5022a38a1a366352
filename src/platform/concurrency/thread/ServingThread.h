#pragma once

#include <string>

#include "platform/concurrency/loop/Block.h"
#include "platform/concurrency/thread/LoopThread.h"

namespace platform {

/// The LoopThread behind all sockets of a room: it serves from its making to the end of the process.
///
/// Made once and never destroyed (static T& x = *new T). Threads: any thread may call anything.
class ServingThread {
 public:
  /// As for LoopThread, with what it throws.
  ServingThread(std::string name, std::string failure);
  ~ServingThread() = delete;
  ServingThread(const ServingThread&) = delete;
  ServingThread& operator=(const ServingThread&) = delete;

  [[nodiscard]] RunLoop& loop() const { return thread_.loop(); }
  /// Runs `block` on the thread; blocks run in the order given, and are destroyed there.
  void perform(Block block) const;
  /// Halts the thread for ever after what it has to do now, and waits for that, but not for long. For the end of the process, before its
  /// libraries are taken down under the thread. Does nothing when the caller is the thread itself.
  void park() const;

 private:
  const LoopThread thread_;
};

}  // namespace platform
