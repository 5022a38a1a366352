#include "Services/NetWorkConnectionStatus.h"

#include <netinet/in.h>

#include <memory>

#include "platform/foundation/process/NeverReleased.h"
#include "platform/reachability/ReachabilityTarget.h"

namespace kestrine {

using platform::NeverReleased;
using platform::ReachabilityTarget;

bool NetWorkConnectionStatus::ConectionStatus() {
  sockaddr_in wildcard{};
  wildcard.sin_family = AF_INET;
  const auto target = ReachabilityTarget::createWithAddress(reinterpret_cast<const sockaddr*>(&wildcard));
  if (!target) return false;
  NeverReleased::registry().keep(target);
  const auto flags = target->flags();
  return flags && connectionStatusForFlags(*flags);
}

bool NetWorkConnectionStatus::connectionStatusForFlags(platform::NetworkReachabilityFlags flags) {
  using namespace platform;
  const auto isSet = [flags](NetworkReachabilityFlags bit) { return (flags & bit) != 0; };
  if (!isSet(kSCNetworkReachabilityFlagsReachable)) return false;
  if (!isSet(kSCNetworkReachabilityFlagsConnectionRequired)) return true;
  const bool connectsItself = isSet(kSCNetworkReachabilityFlagsConnectionOnDemand) || isSet(kSCNetworkReachabilityFlagsConnectionOnTraffic);
  if (connectsItself && !isSet(kSCNetworkReachabilityFlagsInterventionRequired)) return true;
  return isSet(kSCNetworkReachabilityFlagsIsDirect);
}

std::size_t NetWorkConnectionStatus::unreleasedTargetCount() {
  return NeverReleased::registry().countOf<std::shared_ptr<ReachabilityTarget>>();
}

}  // namespace kestrine
