#pragma once

#include <memory>
#include <string>
#include <thread>

#include "platform/concurrency/loop/Block.h"
#include "platform/concurrency/loop/RunLoop.h"

namespace platform {

/// A thread that serves its run loop and nothing else, for as long as its owner keeps this. It has all signals blocked, since they are for
/// the process's own threads. What leaves a block or a callback of the loop, of whatever type, is said in the log and ends there, and the
/// loop goes on.
///
/// The destructor lets the thread finish the blocks that it was given before, stops it and waits for its end; a callback that runs an inner
/// loop is stopped there, and waited for. What is scheduled on the loop and still valid is let go of on the thread. On the thread itself,
/// inside one of its callbacks, the destructor cannot wait: it drops the blocks that have not begun, nothing more is called, and the thread
/// ends by itself when that callback returns. An owner whose callbacks use its other members declares the thread last.
///
/// Threads: any thread may call anything and destroy it.
class LoopThread {
 public:
  /// `name`: the thread's, of which the system takes 15 bytes. `failure`: what the log says before that which left a block.
  /// Throws std::system_error when the system has no thread or no descriptors left; then there is no thread.
  LoopThread(std::string name, std::string failure);
  ~LoopThread();
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  /// Its loop, which the thread runs always: a `stop` from outside of a callback's inner run has no effect.
  [[nodiscard]] RunLoop& loop() const;
  /// The same, for what outlives the thread: then the loop lets go of all that it is given.
  [[nodiscard]] const std::shared_ptr<RunLoop>& sharedLoop() const;
  /// Runs `block` on the thread; blocks run in the order given, and are destroyed there.
  void perform(Block block) const;

 private:
  class Server;
  std::shared_ptr<Server> server_;
  std::thread thread_;
};

}  // namespace platform
