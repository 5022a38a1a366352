#pragma once

#include <functional>
#include <memory>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/FileHandle.h"

// Internal to the channel: the signals of a service process. SIGTERM and SIGINT, which ask it to end, are read by a run loop like any other
// descriptor, so that what they start runs as ordinary code.
namespace platform::xpc {

/// Blocks the ending signals, and ignores SIGPIPE and SIGXFSZ: each is an error of the write that met it. On the main thread before it has
/// made a second one, since every thread that is made later must have them blocked.
void prepareSignals();

/// Calls a function for each ending signal while it lives. Threads: made and destroyed anywhere, `begin` once.
class EndingSignals {
 public:
  EndingSignals() = default;
  EndingSignals(const EndingSignals&) = delete;
  EndingSignals& operator=(const EndingSignals&) = delete;
  ~EndingSignals();

  /// From now on `told` is called on the loop. 0, or an errno value.
  [[nodiscard]] int begin(RunLoop& loop, std::function<void()> told);

 private:
  FileHandle descriptor_;
  std::shared_ptr<RunLoopItem> item_;
};

}  // namespace platform::xpc
