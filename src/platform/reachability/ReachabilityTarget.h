#pragma once

#include <sys/socket.h>

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/reachability/ReachabilityFlags.h"

namespace platform {

/// A network target, an address or a host name, and whether there is a way to it. The answer comes from the kernel's routing tables over
/// rtnetlink(7), which needs no privileges; nothing is sent to the target.
///
/// The wildcard address (0.0.0.0 or ::) stands for the network at large: there is a way when a default route exists, of either IP version,
/// over an interface that is up and has its carrier. Another address has a way when the kernel would route a packet to it over such an
/// interface. A host name has the best way of its addresses, and none while it cannot be resolved.
///
/// Owned by whoever made it. A run loop that a target is scheduled on does not keep it: letting go of the target ends the schedule.
/// A target owns no descriptor until it is scheduled; then one socket for each schedule.
///
/// Threads: any thread may call anything. When unscheduleFromRunLoop returns, the callback is not running (unless it is the caller) and is
/// not called again through that schedule. A callback that runs while the target is let go of finishes first, with the target alive.
class ReachabilityTarget {
 public:
  using Callback = std::function<void(const ReachabilityTarget& target, NetworkReachabilityFlags flags)>;

  /// Empty for an address that is null or of a family other than AF_INET and AF_INET6. The port is ignored.
  static std::shared_ptr<ReachabilityTarget> createWithAddress(const sockaddr* address);
  /// Empty for a name that is empty or holds a NUL. A numeric address is taken as that address.
  static std::shared_ptr<ReachabilityTarget> createWithName(std::string_view name);

  virtual ~ReachabilityTarget();
  ReachabilityTarget(const ReachabilityTarget&) = delete;
  ReachabilityTarget& operator=(const ReachabilityTarget&) = delete;

  /// The flags as they are now; 0 when there is no way. Nothing when the kernel cannot be asked (no netlink socket to be had). A host name
  /// is resolved first, which may take as long as the resolver does.
  [[nodiscard]] virtual std::optional<NetworkReachabilityFlags> flags() const = 0;

  /// What is called, on the run loop, when the flags have changed; replaces the former one. Empty for none. Always succeeds.
  virtual bool setCallback(Callback callback) = 0;
  /// Watches for changes on `runLoop`, against the flags of this moment. One change of the flags gives one call, at once; what a host
  /// name's first resolution gives counts as a change when it is not 0. False when the kernel gives no socket. Each call adds a schedule.
  virtual bool scheduleWithRunLoop(const std::shared_ptr<RunLoop>& runLoop) = 0;
  /// Ends one schedule on `runLoop`; false when there is none.
  virtual bool unscheduleFromRunLoop(const std::shared_ptr<RunLoop>& runLoop) = 0;
  [[nodiscard]] virtual bool isScheduled() const = 0;

 protected:
  ReachabilityTarget() = default;
};

}  // namespace platform
