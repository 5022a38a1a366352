#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/xpc/connection/Listener.h"
#include "platform/xpc/launch/ServiceFolder.h"
#include "platform/xpc/service/LockWait.h"

// Internal to the channel: how a service process ends when it is told to.
namespace platform::xpc {

/// The orderly end, in this order: the socket is removed when it is one of ours, so that no client finds a listener that will never accept
/// (this waits at most a second for the launch lock, and is left out when that is not to be had); every peer's handler is told
/// TerminationImminent; the process ends with status 0 when all of them and the end handler, which begins first of all, have returned, or
/// after two seconds.
/// Ownership: lives as long as the process. Threads: the I/O thread, which is never made to wait.
class Termination {
 public:
  /// Called once, on the main run loop; must return by `limit`.
  using EndHandler = std::function<void(std::chrono::steady_clock::time_point limit)>;

  Termination(const ServiceFolder& folder, std::string name, std::shared_ptr<Listener> listener, EndHandler endHandler);

  /// Only the first call does anything.
  void begin();

 private:
  void callEndHandler();
  void tellPeers();

  const ServiceFolder& folder_;
  const std::string name_;
  const std::shared_ptr<Listener> listener_;
  const EndHandler endHandler_;
  bool begun_ = false;
  /// The process ends when its last holder lets go of it.
  std::shared_ptr<void> everybody_;
  std::optional<LockWait> launchLock_;
  std::shared_ptr<RunLoopItem> limit_;
};

}  // namespace platform::xpc
