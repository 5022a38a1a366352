#include "Services/NetWorkConnectionStatus.h"

#include <netinet/in.h>

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/reachability/ReachabilityTarget.h"

namespace kestrine {

namespace {

/// The targets that are never released. They hang on a name, so that a leak checker can tell them from what somebody forgot.
struct UnreleasedTargets {
  std::mutex mutex;
  std::vector<std::shared_ptr<platform::ReachabilityTarget>> targets;
};

UnreleasedTargets& unreleasedTargets() {
  static UnreleasedTargets& targets = *new UnreleasedTargets();
  return targets;
}

}  // namespace

bool NetWorkConnectionStatus::ConectionStatus() {
  sockaddr_in wildcard{};
  wildcard.sin_family = AF_INET;
  const auto target = platform::ReachabilityTarget::createWithAddress(reinterpret_cast<const sockaddr*>(&wildcard));
  if (!target) return false;
  {
    UnreleasedTargets& unreleased = unreleasedTargets();
    const std::lock_guard lock(unreleased.mutex);
    unreleased.targets.push_back(target);
  }
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
  UnreleasedTargets& unreleased = unreleasedTargets();
  const std::lock_guard lock(unreleased.mutex);
  return unreleased.targets.size();
}

}  // namespace kestrine
