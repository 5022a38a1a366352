#pragma once

#include <functional>

#include "platform/concurrency/loop/EndingSignals.h"

namespace kestrine {

/// SIGINT, SIGTERM and SIGHUP as an event of a run loop, so that a command can end in order.
///
/// Make it first of all: the signals are blocked in the making thread, and threads made later inherit that. The first signal calls the
/// handler; after it they have their usual effect again, so that a second one ends a command whose orderly end takes too long.
/// Threads: made, scheduled and destroyed on the thread of the run loop.
class StopSignals {
 public:
  /// Throws std::system_error when the process has no descriptor left.
  StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  /// Calls `handler` on the loop once, at the first signal. The loop keeps running while it waits for one.
  void schedule(platform::RunLoop& loop, std::function<void()> handler);
  /// Lets go of the loop without a signal.
  void cancel() { signals_.cancel(); }
  /// Readable when a signal has come that was not handled yet.
  [[nodiscard]] int fileDescriptor() const { return signals_.fileDescriptor(); }

 private:
  platform::EndingSignals signals_;
};

}  // namespace kestrine
