#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "Services/NetWorkConnectionStatus.h"
#include "Services/Reachability/Reachability.h"
#include "platform/foundation/process/NotificationCenter.h"
#include "tests/support/Eventually.h"
#include "tests/support/NetworkNamespace.h"

namespace kestrine::test {
namespace {

using platform::RunLoop;

sockaddr_in addressOf(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(static_cast<in_addr_t>(a << 24U | b << 16U | c << 8U | d));
  static_assert(sizeof address == 16);
  return address;
}

NetworkStatus statusOf(const std::shared_ptr<Reachability>& reachability) { return reachability->currentReachabilityStatus(); }

TEST(ReachabilityInANetwork, WithoutOneNothingIsReachable) {
  inNetworkNamespace([] {
    EXPECT_FALSE(Reachability::isReachable());
    EXPECT_FALSE(NetWorkConnectionStatus::ConectionStatus());
    EXPECT_EQ(statusOf(Reachability::reachabilityForInternetConnection()), NetworkStatusNotReachable);
    EXPECT_EQ(statusOf(Reachability::reachabilityForLocalWiFi()), NetworkStatusNotReachable);
    ip("link set lo up");
    EXPECT_FALSE(Reachability::isReachable()) << "the loopback alone is no network";
  });
}

TEST(ReachabilityInANetwork, ADefaultRouteMakesTheInternetReachableAndNotTheLocalWiFi) {
  inNetworkNamespace([] {
    connectToNetwork();
    EXPECT_TRUE(eventually([] { return Reachability::isReachable(); }));
    EXPECT_TRUE(NetWorkConnectionStatus::ConectionStatus());
    EXPECT_EQ(statusOf(Reachability::reachabilityForLocalWiFi()), NetworkStatusNotReachable);
    const sockaddr_in far = addressOf(198, 51, 100, 7);
    EXPECT_EQ(statusOf(Reachability::reachabilityWithAddress(&far)), NetworkStatusReachable);
    EXPECT_EQ(statusOf(Reachability::reachabilityWithHostName("localhost")), NetworkStatusReachable);
    EXPECT_EQ(Reachability::reachabilityForInternetConnection()->connectionRequired(), 0U);
    ip("link set v0 down");
    EXPECT_TRUE(eventually([] { return !Reachability::isReachable(); }));
    EXPECT_FALSE(NetWorkConnectionStatus::ConectionStatus());
  });
}

TEST(ReachabilityInANetwork, ALinkLocalRouteMakesTheLocalWiFiReachableAndNotTheInternet) {
  inNetworkNamespace([] {
    addCable("v0");
    ip("address add 169.254.7.7/16 dev v0");
    EXPECT_TRUE(eventually([] { return statusOf(Reachability::reachabilityForLocalWiFi()) == NetworkStatusReachable; }));
    EXPECT_FALSE(Reachability::isReachable());
    // The same address without the local Wi-Fi's rule is an ordinary target.
    const sockaddr_in linkLocal = addressOf(169, 254, 0, 0);
    EXPECT_EQ(statusOf(Reachability::reachabilityWithAddress(&linkLocal)), NetworkStatusReachable);
  });
}

TEST(ReachabilityInANetwork, TellsEachChangeOnceOnTheLoopOfTheThreadThatStarted) {
  inNetworkNamespace([] {
    connectToNetwork();
    ASSERT_TRUE(eventually([] { return Reachability::isReachable(); }));
    const auto reachability = Reachability::reachabilityForInternetConnection();
    std::vector<NetworkStatus> told;
    const auto observation = platform::NotificationCenter::defaultCenter().addObserver(
        kNetworkReachabilityChangedNotification, {}, [&](const platform::Notification& notification) {
          EXPECT_TRUE(RunLoop::current()->isRunning());
          told.push_back(statusOf(std::any_cast<std::shared_ptr<Reachability>>(notification.object)));
        });
    ASSERT_TRUE(reachability->startNotifier());
    const auto serve = [&told](std::size_t count) {
      for (int i = 0; told.size() < count && i < 300; ++i) RunLoop::current()->runFor(0.1);
      RunLoop::current()->runFor(0.6);
    };
    ip("route del default");
    serve(1);
    EXPECT_EQ(told, std::vector({NetworkStatusNotReachable}));
    ip("route add default via 192.0.2.1");
    serve(2);
    EXPECT_EQ(told, std::vector({NetworkStatusNotReachable, NetworkStatusReachable}));
    reachability->stopNotifier();
    ip("route del default");
    RunLoop::current()->run();  // nothing is scheduled any more
    RunLoop::current()->runFor(0.3);
    EXPECT_EQ(told.size(), 2U);
  });
}

TEST(ConectionStatus, LeavesOneTargetForEachCallAndNothingElse) {
  const auto openDescriptors = [] {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return std::distance(begin(descriptors), end(descriptors));
  };
  const auto before = openDescriptors();
  const std::size_t targets = NetWorkConnectionStatus::unreleasedTargetCount();
  for (int i = 0; i < 5000; ++i) NetWorkConnectionStatus::ConectionStatus();
  EXPECT_EQ(NetWorkConnectionStatus::unreleasedTargetCount(), targets + 5000);
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace kestrine::test
