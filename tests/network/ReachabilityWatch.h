#pragma once

#include <netinet/in.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/concurrency/RunLoop.h"
#include "platform/network/ReachabilityTarget.h"

namespace platform {

/// The target of a numeric address or a name.
inline std::shared_ptr<ReachabilityTarget> targetOf(const std::string& name) {
  auto target = ReachabilityTarget::createWithName(name);
  if (!target) throw std::runtime_error("no target for " + name);
  return target;
}

/// The flags of a target made for this question; a value that no target has when they cannot be read.
inline NetworkReachabilityFlags flagsOf(const std::string& name) { return targetOf(name)->flags().value_or(0xFFFFFFFF); }

/// Serves the calling thread's run loop until `condition` is true, for at most `limit`.
inline bool servedUntil(const std::function<bool()>& condition, std::chrono::seconds limit = std::chrono::seconds(30)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    RunLoop::current()->runFor(0.01);
  }
  return true;
}

/// A target that is watched on the calling thread's run loop, and what it told so far.
class WatchedTarget {
 public:
  explicit WatchedTarget(const std::string& name) : target(targetOf(name)) {
    target->setCallback([this](const ReachabilityTarget&, NetworkReachabilityFlags flags) { told.push_back(flags); });
    if (!target->scheduleWithRunLoop(RunLoop::current())) throw std::runtime_error("cannot be scheduled");
  }
  WatchedTarget(const WatchedTarget&) = delete;
  WatchedTarget& operator=(const WatchedTarget&) = delete;

  /// What it told by the time that it told `flags` last and then nothing more for longer than it takes to look again.
  std::vector<NetworkReachabilityFlags> toldUntil(NetworkReachabilityFlags flags) {
    servedUntil([&] { return !told.empty() && told.back() == flags; });
    RunLoop::current()->runFor(0.6);
    return told;
  }

  std::shared_ptr<ReachabilityTarget> target;
  std::vector<NetworkReachabilityFlags> told;
};

}  // namespace platform
