#pragma once

#include <functional>
#include <memory>

namespace platform {

class RunLoop;

/// Something scheduled on a run loop. While it is scheduled, `RunLoop::run` keeps running. Owned by whoever made it (shared); the loop
/// holds a reference while it is scheduled. Threads: any thread may call anything. On return of `invalidate` the callback is not running
/// and never runs again (called from inside the callback: it does not run again); the loop has forgotten the item, and what the callback
/// captured has been released unless it is running (then it is released when the callback returns). No lock is held while a callback runs
/// or is released, so the only way to wait for ever is to invalidate, on another thread, an item whose callback waits for the caller.
class RunLoopItem {
 public:
  virtual ~RunLoopItem();
  RunLoopItem(const RunLoopItem&) = delete;
  RunLoopItem& operator=(const RunLoopItem&) = delete;
  virtual void invalidate() = 0;
  [[nodiscard]] virtual bool isValid() const = 0;

 protected:
  RunLoopItem() = default;
};

/// Runs its callback on the loop after it was signalled; any number of signals before the callback begins give one call. A signal given
/// before the source was added is kept.
class RunLoopSource : public RunLoopItem {
 public:
  static std::shared_ptr<RunLoopSource> create(std::function<void()> perform);
  virtual void signal() = 0;
};

/// Runs its callback on the loop when the descriptor (not owned) is ready for `events` (EPOLLIN, EPOLLOUT), level-triggered; errors and
/// hang-ups are always told. The callback receives what is ready. The descriptor must stay open until the item is invalidated, and a loop
/// takes one item per descriptor: `add` throws Exception(NSInvalidArgumentException) for a second one and for what epoll(7) cannot watch,
/// such as regular files.
class RunLoopDescriptor : public RunLoopItem {
 public:
  static std::shared_ptr<RunLoopDescriptor> create(int descriptor, unsigned events, std::function<void(unsigned ready)> perform);
  virtual void setEvents(unsigned events) = 0;
};

/// Runs its callback on the loop once after `seconds`, or first then and every `interval` seconds when that is above zero. By
/// CLOCK_MONOTONIC, counted from `create`; never early. Periods that passed unserved are skipped. A timer that runs once is invalid when
/// its callback begins.
class RunLoopTimer : public RunLoopItem {
 public:
  static std::shared_ptr<RunLoopTimer> create(double seconds, double interval, std::function<void()> perform);
};

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
  virtual void perform(std::function<void()> block) = 0;
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
