#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Mutex.h"
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
/// | state     | what goes on                              | look                               | resolver has answered     | end      |
/// |-----------|-------------------------------------------|------------------------------------|---------------------------|----------|
/// | Waiting   | nothing                                   | an address: flags are read;        |                           | -> Ended |
/// |           |                                           | a name: -> Resolving               |                           |          |
/// | Resolving | a pool thread resolves the name           | -> Late                            | -> Waiting, flags told    | -> Ended |
/// | Late      | the same; what changed it may have missed |                                    | -> Resolving, flags told  | -> Ended |
/// | Ended     | nothing is told any more                  |                                    |                           |          |
///
/// Threads: made and ended on any thread; everything else runs on the run loop, but for resolving a host name, which a pool thread does.
/// When `end` returns, `changed` is not running (unless it is the caller) and is not called again.
class ReachabilitySchedule : public std::enable_shared_from_this<ReachabilitySchedule> {
 public:
  using Changed = std::function<void(NetworkReachabilityFlags flags)>;

  /// Empty when the system gives no netlink socket.
  static std::shared_ptr<ReachabilitySchedule> begin(const ReachabilityEndpoint& endpoint, const std::shared_ptr<RunLoop>& runLoop,
                                                     Changed changed);
  void end() EXCLUDES(mutex_);
  [[nodiscard]] bool isOn(const RunLoop* runLoop) const { return runLoop_.lock().get() == runLoop; }

  ReachabilitySchedule(const ReachabilitySchedule&) = delete;
  ReachabilitySchedule& operator=(const ReachabilitySchedule&) = delete;

 private:
  enum class State { Waiting, Resolving, Late, Ended };
  ReachabilitySchedule(const ReachabilityEndpoint& endpoint, const std::shared_ptr<RunLoop>& runLoop, NetlinkSocket socket,
                       NetworkReachabilityFlags flags, Changed changed);

  void addTo(RunLoop& runLoop);
  void assertOnRunLoop() const ASSERT_CAPABILITY(runLoopThread_);
  void socketIsReadable() REQUIRES(runLoopThread_);
  void lookAgainLater() REQUIRES(runLoopThread_) EXCLUDES(mutex_);
  void look() REQUIRES(runLoopThread_);
  void resolve() EXCLUDES(mutex_);
  void askResolver();
  void resolved(std::optional<NetworkReachabilityFlags> flags) EXCLUDES(mutex_);
  void takeResolved() REQUIRES(runLoopThread_) EXCLUDES(mutex_);
  void told(std::optional<NetworkReachabilityFlags> flags) REQUIRES(runLoopThread_) EXCLUDES(mutex_);

  const ReachabilityEndpoint endpoint_;
  const std::weak_ptr<RunLoop> runLoop_;
  NetlinkSocket socket_;
  const Changed changed_;

  std::shared_ptr<RunLoopDescriptor> readable_;
  /// Signalled when a host name was resolved.
  std::shared_ptr<RunLoopSource> answered_;
  ThreadRole runLoopThread_;
  /// What the last look found.
  NetworkReachabilityFlags flags_ GUARDED_BY(runLoopThread_);

  Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::Waiting;
  /// The one more look.
  std::shared_ptr<RunLoopTimer> timer_ GUARDED_BY(mutex_);
  /// The resolver's last.
  std::optional<NetworkReachabilityFlags> answer_ GUARDED_BY(mutex_);
};

}  // namespace platform
