#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/concurrency/loop/Block.h"

namespace platform {

/// Runs blocks one after another on threads that it borrows.
///
/// Guarantees:
///  1. Blocks run in the order of `async`, each once; a block begins after the former one returned, and sees everything that it wrote.
///  2. What the calling thread wrote before `async` is visible to the block.
///  3. A block that never returns holds up its own queue only: a queue borrows a thread while it has work, from a pool without a maximum.
///  4. The queue lives until its last block ran, also when its owner let go of it; destroying the handle does not wait.
///  5. While suspended no block begins; a running one ends. Suspensions nest and are balanced by `resume`.
///  6. `sync` returns after its block ran. Called on the queue itself it deadlocks, as on the platform.
///  7. An exception that leaves a block is said in the log and ends there.
/// Not promised: a thread of its own; two blocks may run on different threads. What a block schedules on its thread's run loop and leaves
/// there is forgotten when the queue gives its thread back. Blocks of a queue that its owner let go of while it was suspended are destroyed
/// unrun.
///
/// Threads: any thread may call anything.
class SerialQueue {
 public:
  /// `label` names it in the log and in debuggers; may be empty.
  static std::shared_ptr<SerialQueue> create(std::string label = {});
  virtual ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  virtual void async(Block block) = 0;
  virtual void sync(const std::function<void()>& block) = 0;
  virtual void suspend() = 0;
  /// Throws Exception(NSInternalInconsistencyException) when the queue is not suspended.
  virtual void resume() = 0;
  [[nodiscard]] virtual const std::string& label() const = 0;
  /// Whether the calling thread is running one of its blocks.
  [[nodiscard]] virtual bool isCurrent() const = 0;

 protected:
  SerialQueue() = default;
};

/// The queue whose blocks the main thread's run loop runs. The same guarantees, except that it cannot be suspended (suspend and resume do
/// nothing). A block wakes a main loop that runs and keeps it running until the block ran; waiting for more takes a RunLoopItem on
/// RunLoop::main().
std::shared_ptr<SerialQueue> mainQueue();

/// Runs `block` on a borrowed thread of the same pool, beside everything else. At most four idle threads park, without a time-out. An
/// exception that leaves the block is said in the log and ends there. Threads of the pool block all signals, so a process started from one
/// must unblock its own.
void runOnPoolThread(Block block);

}  // namespace platform
