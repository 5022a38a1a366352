#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/reachability/ReachabilityTarget.h"
#include "tests/support/Eventually.h"
#include "tests/support/NetworkNamespace.h"

// What the tests of reachability targets have in common. Names of other rooms that all of them use are theirs here, too.
namespace platform {

using kestrine::test::addCable;
using kestrine::test::connectToNetwork;
using kestrine::test::eventually;
using kestrine::test::inNetworkNamespace;
using kestrine::test::ip;
using kestrine::test::ipBatch;

// The masks as the platform has them, in numbers.
inline constexpr NetworkReachabilityFlags kNoWay = 0;
inline constexpr NetworkReachabilityFlags kReachable = 0x2;
inline constexpr NetworkReachabilityFlags kReachableOverATunnel = 0x3;
inline constexpr NetworkReachabilityFlags kReachableDirectly = 0x20002;
inline constexpr NetworkReachabilityFlags kReachableHere = 0x30002;

/// The target of a numeric address or a name.
inline std::shared_ptr<ReachabilityTarget> targetOf(const std::string& name) {
  auto target = ReachabilityTarget::createWithName(name);
  if (!target) throw std::runtime_error("no target for " + name);
  return target;
}

/// The flags of a target made for this question; a value that no target has when they cannot be read.
inline NetworkReachabilityFlags flagsOf(const std::string& name) { return targetOf(name)->flags().value_or(0xFFFFFFFF); }

/// An interface has its carrier a moment after both ends of the cable are up.
inline bool becomes(const std::string& name, NetworkReachabilityFlags flags) {
  return eventually([&] { return flagsOf(name) == flags; });
}

/// A machine with a network, once it is there.
inline void connectAndWait() {
  connectToNetwork();
  ASSERT_TRUE(becomes("0.0.0.0", kReachable));
}

/// Serves the calling thread's run loop until `condition` is true, for at most `limit`.
inline bool servedUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = kestrine::test::kPatience) {
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
