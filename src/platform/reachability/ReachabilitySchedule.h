#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/concurrency/RunLoop.h"
#include "platform/reachability/NetlinkSocket.h"
#include "platform/reachability/ReachabilityEndpoint.h"

namespace platform {

/// Watches one endpoint on one run loop and tells when its flags have changed. Internal to this room.
///
/// It listens to what the kernel tells about interfaces, addresses, routes and rules, and takes each message, a lost one included, as a
/// reason to look at the flags anew; what the messages say does not matter. Some changes are told before they are made, and the routes that
/// go with an address or an interface go untold: so a burst of messages is followed by one more look, a moment after its last one. Without
/// messages nothing runs.
///
/// Threads: made and ended on any thread; everything else runs on the run loop, but for resolving a host name, which a pool thread does.
/// When `end` returns, `changed` is not running (unless it is the caller) and is not called again.
class ReachabilitySchedule : public std::enable_shared_from_this<ReachabilitySchedule> {
 public:
  using Changed = std::function<void(NetworkReachabilityFlags flags)>;

  /// Empty when the system gives no netlink socket.
  static std::shared_ptr<ReachabilitySchedule> begin(const ReachabilityEndpoint& endpoint, const std::shared_ptr<RunLoop>& runLoop,
                                                     Changed changed);
  void end();
  [[nodiscard]] bool isOn(const RunLoop* runLoop) const { return runLoop_.lock().get() == runLoop; }

  ReachabilitySchedule(const ReachabilitySchedule&) = delete;
  ReachabilitySchedule& operator=(const ReachabilitySchedule&) = delete;

 private:
  ReachabilitySchedule(const ReachabilityEndpoint& endpoint, const std::shared_ptr<RunLoop>& runLoop, NetlinkSocket socket,
                       Changed changed);

  void addTo(RunLoop& runLoop);
  void socketIsReadable();
  void lookAgainLater();
  void look();
  void resolveElsewhere();
  void resolved(std::optional<NetworkReachabilityFlags> flags);
  void takeResolved();
  void told(std::optional<NetworkReachabilityFlags> flags);

  const ReachabilityEndpoint endpoint_;
  const std::weak_ptr<RunLoop> runLoop_;
  NetlinkSocket socket_;
  const Changed changed_;

  std::shared_ptr<RunLoopDescriptor> readable_;
  /// Signalled when a host name was resolved.
  std::shared_ptr<RunLoopSource> answered_;
  /// What the last look found; only the run loop's thread looks at it.
  NetworkReachabilityFlags flags_ = 0;

  std::mutex mutex_;
  // Under the lock.
  bool ended_ = false;
  std::shared_ptr<RunLoopTimer> timer_;
  bool resolving_ = false;
  bool resolveAgain_ = false;
  std::optional<NetworkReachabilityFlags> answer_;
};

}  // namespace platform
