#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/xpc/launch/LockFile.h"

// Internal to the channel: waiting for a lock file on a run loop whose thread has other things to do.
namespace platform::xpc {

/// Takes a lock file, trying again every few milliseconds until `limit` has passed, while its loop goes on with everything else.
/// Ownership: its maker's; destroying it ends the waiting, and `done` is not called any more. Not from within `done`.
/// Threads: the loop's, all of it.
class LockWait {
 public:
  /// `done` is called once, on the loop's thread, with what LockFile::lock returns. When the lock was had it is released after that.
  LockWait(LockFile lock, std::chrono::milliseconds limit, std::function<void(int error)> done);
  ~LockWait();
  LockWait(const LockWait&) = delete;
  LockWait& operator=(const LockWait&) = delete;

  /// Once. Calls `done` before it returns when nobody holds the lock.
  void begin(RunLoop& loop);
  /// The file; locked while `done` runs with 0.
  [[nodiscard]] const LockFile& file() const { return lock_; }

 private:
  /// Whether there is nothing left to wait for.
  bool attempt();

  LockFile lock_;
  const std::chrono::steady_clock::time_point deadline_;
  const std::function<void(int error)> done_;
  std::shared_ptr<RunLoopItem> retry_;
};

}  // namespace platform::xpc
