#include "Services/Reachability/Reachability.h"

#include <utility>

#include "platform/foundation/process/Assertion.h"
#include "platform/foundation/process/NotificationCenter.h"

namespace kestrine {

namespace {

using platform::kSCNetworkReachabilityFlagsConnectionOnDemand;
using platform::kSCNetworkReachabilityFlagsConnectionOnTraffic;
using platform::kSCNetworkReachabilityFlagsConnectionRequired;
using platform::kSCNetworkReachabilityFlagsInterventionRequired;
using platform::kSCNetworkReachabilityFlagsIsDirect;
using platform::kSCNetworkReachabilityFlagsReachable;
using platform::NetworkReachabilityFlags;
using platform::ReachabilityTarget;

// Assertions are known to handlers, and in logs, by this place: it stays the same however the code around them moves.
constexpr const char* kFileOfAssertions = "Services/Reachability/Reachability";
constexpr int kLineOfConnectionRequired = 245;
constexpr int kLineOfCurrentReachabilityStatus = 256;

// The IPv4 link-local network (RFC 3927), in host byte order.
constexpr in_addr_t kLinkLocalNetwork = 0xA9FE0000;

sockaddr_in addressOf(in_addr_t hostOrder) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(hostOrder);
  return address;
}

/// A missing target reads like one whose flags cannot be read.
std::optional<NetworkReachabilityFlags> flagsOf(const std::shared_ptr<ReachabilityTarget>& target) {
  return target ? target->flags() : std::nullopt;
}

}  // namespace

Reachability::~Reachability() { stopNotifier(); }

std::shared_ptr<Reachability> Reachability::reachabilityWithTarget(std::shared_ptr<ReachabilityTarget> target) {
  if (!target) return nullptr;
  auto reachability = std::make_shared<Reachability>();
  reachability->reachabilityRef_ = std::move(target);
  return reachability;
}

std::shared_ptr<Reachability> Reachability::reachabilityWithHostName(const std::string& hostName) {
  return reachabilityWithTarget(ReachabilityTarget::createWithName(hostName));
}

std::shared_ptr<Reachability> Reachability::reachabilityWithAddress(const sockaddr_in* hostAddress) {
  return reachabilityWithTarget(ReachabilityTarget::createWithAddress(reinterpret_cast<const sockaddr*>(hostAddress)));
}

std::shared_ptr<Reachability> Reachability::reachabilityForInternetConnection() {
  const sockaddr_in address = addressOf(INADDR_ANY);
  return reachabilityWithAddress(&address);
}

std::shared_ptr<Reachability> Reachability::reachabilityForLocalWiFi() {
  const sockaddr_in address = addressOf(kLinkLocalNetwork);
  auto reachability = reachabilityWithAddress(&address);
  if (reachability) reachability->localWiFiRef_ = true;
  return reachability;
}

bool Reachability::isReachable() {
  const auto reachability = reachabilityForInternetConnection();
  return reachability && reachability->currentReachabilityStatus() != NetworkStatusNotReachable;
}

bool Reachability::startNotifier() {
  if (!reachabilityRef_) return false;
  // Not kept alive by what it registers, or it would never end.
  const bool registered =
      reachabilityRef_->setCallback([info = weak_from_this()](const ReachabilityTarget& target, NetworkReachabilityFlags flags) {
        if (const auto self = info.lock()) ReachabilityCallback(target, flags, self.get());
      });
  return registered && reachabilityRef_->scheduleWithRunLoop(platform::RunLoop::current());
}

void Reachability::stopNotifier() {
  // Only an object that notifies has a use for the thread's run loop: asking for it would make one, with descriptors of its own.
  if (reachabilityRef_ && reachabilityRef_->isScheduled()) reachabilityRef_->unscheduleFromRunLoop(platform::RunLoop::current());
}

NetworkStatus Reachability::localWiFiStatusForFlags(NetworkReachabilityFlags flags) const {
  PrintReachabilityFlags(flags, "localWiFiStatusForFlags");
  constexpr NetworkReachabilityFlags kAttached = kSCNetworkReachabilityFlagsReachable | kSCNetworkReachabilityFlagsIsDirect;
  return (flags & kAttached) == kAttached ? NetworkStatusReachable : NetworkStatusNotReachable;
}

NetworkStatus Reachability::networkStatusForFlags(NetworkReachabilityFlags flags) const {
  PrintReachabilityFlags(flags, "networkStatusForFlags");
  if ((flags & kSCNetworkReachabilityFlagsReachable) == 0) return NetworkStatusNotReachable;
  if ((flags & kSCNetworkReachabilityFlagsConnectionRequired) == 0) return NetworkStatusReachable;
  const bool connectsItself =
      (flags & (kSCNetworkReachabilityFlagsConnectionOnDemand | kSCNetworkReachabilityFlagsConnectionOnTraffic)) != 0;
  const bool needsSomebody = (flags & kSCNetworkReachabilityFlagsInterventionRequired) != 0;
  return connectsItself && !needsSomebody ? NetworkStatusReachable : NetworkStatusNotReachable;
}

NetworkReachabilityFlags Reachability::connectionRequired() const {
  if (!reachabilityRef_) {
    platform::handleFailure(
        {"connectionRequired", kFileOfAssertions, kLineOfConnectionRequired, "connectionRequired called with NULL reachabilityRef", this});
  }
  return flagsOf(reachabilityRef_).value_or(0) & kSCNetworkReachabilityFlagsConnectionRequired;
}

NetworkStatus Reachability::currentReachabilityStatus() const {
  if (!reachabilityRef_) {
    // The text says currentNetworkStatus, an older name of this operation; whoever matches texts matches that.
    platform::handleFailure({"currentReachabilityStatus", kFileOfAssertions, kLineOfCurrentReachabilityStatus,
                             "currentNetworkStatus called with NULL reachabilityRef", this});
  }
  const auto flags = flagsOf(reachabilityRef_);
  if (!flags) return NetworkStatusNotReachable;
  return localWiFiRef_ ? localWiFiStatusForFlags(*flags) : networkStatusForFlags(*flags);
}

void ReachabilityCallback(const ReachabilityTarget& target, NetworkReachabilityFlags flags, void* info) {
  static_cast<void>(target);
  static_cast<void>(flags);
  const std::shared_ptr<Reachability> reachability = static_cast<Reachability*>(info)->shared_from_this();
  platform::NotificationCenter::defaultCenter().postNotification({kNetworkReachabilityChangedNotification, reachability});
}

void PrintReachabilityFlags(NetworkReachabilityFlags flags, const char* comment) {
  static_cast<void>(flags);
  static_cast<void>(comment);
}

}  // namespace kestrine
