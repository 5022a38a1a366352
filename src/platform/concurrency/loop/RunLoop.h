#pragma once

#include <memory>

#include "platform/concurrency/loop/Block.h"
#include "platform/concurrency/loop/RunLoopDescriptor.h"
#include "platform/concurrency/loop/RunLoopItem.h"
#include "platform/concurrency/loop/RunLoopSource.h"
#include "platform/concurrency/loop/RunLoopTimer.h"

namespace platform {

/// An event loop of one thread over epoll and one eventfd.
///
/// Guarantees:
///  1. `current()` is the same loop for the life of a thread and differs between threads. It outlives its thread while someone holds it.
///  2. `run()` returns when nothing is scheduled, or after `stop()`; an item scheduled before the call keeps it running.
///  3. While nothing happens it sleeps: no timers of its own, no wake-ups.
///  4. Callbacks run on the loop's thread, one at a time, never inside `add`, `signal` or `perform`.
///  5. Blocks given to `perform` run in the order given, each once, and keep `run()` from returning until they ran. What the performing
///     thread wrote before `perform` is visible to the block.
///  6. Any thread may add, invalidate, signal, perform and stop. A stop before `run()` has no effect on it.
///  7. `run()` may be called again after it returned, and from inside a callback (the inner call serves all items).
///  8. An exception that leaves a callback leaves `run()`; the loop can be run again.
///  9. Blocks that nobody ran are destroyed, unrun, when the loop's thread ends; what is added or performed after that is let go of at
///  once.
/// Not promised: fairness between items beyond one call each per turn.
class RunLoop : public std::enable_shared_from_this<RunLoop> {
 public:
  /// The calling thread's loop, made on first use.
  static std::shared_ptr<RunLoop> current();
  /// The main thread's loop. Serves the main queue while it runs.
  static std::shared_ptr<RunLoop> main();

  virtual ~RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  /// Runs until nothing is scheduled or `stop()`. Only on the loop's own thread.
  virtual void run() = 0;
  /// The same, but returns at the latest after `seconds`, and waits that long even when nothing is scheduled. True when it was stopped.
  virtual bool runFor(double seconds) = 0;
  /// Makes the innermost running `run` return after the current callback.
  virtual void stop() = 0;
  /// Schedules an item; an item may be on one loop only. Adding an invalid or an already scheduled item does nothing.
  virtual void add(const std::shared_ptr<RunLoopItem>& item) = 0;
  /// Runs `block` once on the loop.
  virtual void perform(Block block) = 0;
  /// Drops the blocks of `perform` that have not begun; those of the main queue stay. Only on the loop's own thread. For a caller that
  /// queued a block to learn whether the loop was run, and finds that it was not.
  virtual void discardPerformed() = 0;
  /// Whether some `run` is on the stack of the loop's thread.
  [[nodiscard]] virtual bool isRunning() const = 0;
  /// Whether the caller is on the loop's thread.
  [[nodiscard]] virtual bool isCurrent() const = 0;

 protected:
  RunLoop() = default;
};

}  // namespace platform
