#pragma once

#include <functional>
#include <memory>

#include "platform/foundation/base/FileHandle.h"

namespace platform {

class RunLoop;
class RunLoopDescriptor;

/// SIGINT, SIGTERM and SIGHUP, which ask a process to end (the last comes right behind SIGTERM when a session ends, systemd.kill(5)), as a
/// descriptor of a run loop (signalfd(2)), so that what they start runs as ordinary code. A signal reaches it only while it is blocked in
/// every thread.
///
/// Ownership: its maker's. Threads: one at a time; destroyed or cancelled on the loop's thread, or when its loop does not run.
class EndingSignals {
 public:
  EndingSignals() = default;
  ~EndingSignals();
  EndingSignals(const EndingSignals&) = delete;
  EndingSignals& operator=(const EndingSignals&) = delete;

  /// Blocks them in the calling thread and in those that it makes later: before it has made any.
  static void block();
  /// Gives them their usual effect back, if they were blocked in this thread only.
  static void unblock();

  /// Opens the descriptor. 0, or an errno value.
  [[nodiscard]] int open();
  /// Readable when a signal has come that was not told yet.
  [[nodiscard]] int fileDescriptor() const { return descriptor_.fileDescriptor(); }

  /// From now on `told` is called on the loop, once for all signals that have come meanwhile. The loop keeps running for them.
  void schedule(RunLoop& loop, std::function<void()> told);
  /// Lets go of the loop.
  void cancel();

 private:
  FileHandle descriptor_;
  std::shared_ptr<RunLoopDescriptor> item_;
};

}  // namespace platform
