#pragma once

namespace platform {

/// Something scheduled on a run loop: a source, a timer or a descriptor. While it is scheduled, `RunLoop::run` keeps running. Owned by
/// whoever made it (shared); the loop holds a reference while it is scheduled. Threads: any thread may call anything. On return of
/// `invalidate` the callback is not running and never runs again (called from inside the callback: it does not run again); the loop has
/// forgotten the item, and what the callback captured has been released unless it is running (then it is released when the callback
/// returns). No lock is held while a callback runs or is released, so the only way to wait for ever is to invalidate, on another thread, an
/// item whose callback waits for the caller.
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

}  // namespace platform
