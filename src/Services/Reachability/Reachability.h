#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>

#include "platform/reachability/ReachabilityTarget.h"

namespace kestrine {

/// Whether a target can be reached.
enum NetworkStatus : std::int32_t {
  /// It cannot, or it could not be found out.
  NetworkStatusNotReachable = 0,
  NetworkStatusReachable = 1,
};

/// Posted on the default notification centre when the way to a notifying object's target has changed. Its object is the
/// std::shared_ptr<Reachability>; it carries nothing else, so listeners ask that object.
inline constexpr const char* kNetworkReachabilityChangedNotification = "kNetworkReachabilityChangedNotification";

/// Answers whether a network target can be reached now, and tells on request when that may have changed.
///
/// Owned by shared pointers. The object does not keep itself alive while it notifies: letting go of it ends the notifications.
///
/// Threads: questions may be asked on any thread. Notifications come on the run loop of the thread that called startNotifier; stopNotifier
/// and so the last release belong on that same thread. Not locked otherwise.
class Reachability : public std::enable_shared_from_this<Reachability> {
 public:
  /// An object without a target. Only asking it anything shows that: see connectionRequired and currentReachabilityStatus.
  Reachability() = default;
  ~Reachability();
  Reachability(const Reachability&) = delete;
  Reachability& operator=(const Reachability&) = delete;

  /// These give nothing when the platform refuses the target.
  static std::shared_ptr<Reachability> reachabilityWithHostName(const std::string& hostName);
  static std::shared_ptr<Reachability> reachabilityWithAddress(const sockaddr_in* hostAddress);
  /// The one that the others go through: owns `target`; gives nothing for none.
  static std::shared_ptr<Reachability> reachabilityWithTarget(std::shared_ptr<platform::ReachabilityTarget> target);
  /// The wildcard address: whether there is a default route.
  static std::shared_ptr<Reachability> reachabilityForInternetConnection();
  /// The link-local network 169.254.0.0, judged by localWiFiStatusForFlags.
  static std::shared_ptr<Reachability> reachabilityForLocalWiFi();
  /// Whether the internet connection is reachable now. Makes and discards a target at each call.
  static bool isReachable();

  /// Begins to post kNetworkReachabilityChangedNotification, on the calling thread's run loop. False when the platform refuses.
  bool startNotifier();
  void stopNotifier();

  /// The rule for the local Wi-Fi: reachable and direct.
  [[nodiscard]] NetworkStatus localWiFiStatusForFlags(platform::NetworkReachabilityFlags flags) const;
  /// The rule for everything else: reachable, and either without a connection to be made first or with one that makes itself.
  [[nodiscard]] NetworkStatus networkStatusForFlags(platform::NetworkReachabilityFlags flags) const;
  /// The bit kSCNetworkReachabilityFlagsConnectionRequired as it stands in the flags: 4 when set, else 0 (also when they cannot be read).
  /// An object without a target fails an assertion; when the handler returns, the answer is that for flags that cannot be read.
  [[nodiscard]] platform::NetworkReachabilityFlags connectionRequired() const;
  /// By the rule that fits the target; NetworkStatusNotReachable when the flags cannot be read. Asserts in the same way.
  [[nodiscard]] NetworkStatus currentReachabilityStatus() const;

 private:
  bool localWiFiRef_ = false;
  std::shared_ptr<platform::ReachabilityTarget> reachabilityRef_;
};

/// What a scheduled target calls: posts the notification for the object that `info` points to. The flags are not looked at.
void ReachabilityCallback(const platform::ReachabilityTarget& target, platform::NetworkReachabilityFlags flags, void* info);

/// A hook for a debugger: both rules call it first, with their own name. Does nothing.
void PrintReachabilityFlags(platform::NetworkReachabilityFlags flags, const char* comment);

}  // namespace kestrine
