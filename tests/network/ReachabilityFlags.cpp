#include "platform/reachability/ReachabilityFlags.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>

#include <cstring>

#include "platform/foundation/base/FileHandle.h"
#include "tests/network/ReachabilityWatch.h"

namespace platform {
namespace {

// What a machine can be asked about: everything, a host far away, the link-local network, and itself.
constexpr const char* kNetworkAtLarge = "0.0.0.0";
constexpr const char* kFarHost = "198.51.100.7";
constexpr const char* kLinkLocalNetwork = "169.254.0.0";
constexpr const char* kLoopback = "127.0.0.1";

TEST(ReachabilityFlags, HaveThePlatformsBits) {
  EXPECT_EQ(kSCNetworkReachabilityFlagsTransientConnection, 0x1U);
  EXPECT_EQ(kSCNetworkReachabilityFlagsReachable, 0x2U);
  EXPECT_EQ(kSCNetworkReachabilityFlagsConnectionRequired, 0x4U);
  EXPECT_EQ(kSCNetworkReachabilityFlagsConnectionOnTraffic, 0x8U);
  EXPECT_EQ(kSCNetworkReachabilityFlagsInterventionRequired, 0x10U);
  EXPECT_EQ(kSCNetworkReachabilityFlagsConnectionOnDemand, 0x20U);
  EXPECT_EQ(kSCNetworkReachabilityFlagsIsLocalAddress, 0x10000U);
  EXPECT_EQ(kSCNetworkReachabilityFlagsIsDirect, 0x20000U);
}

TEST(ReachabilityFlags, WithoutAnyInterfaceNothingIsReachable) {
  inNetworkNamespace([] {
    for (const char* name : {kNetworkAtLarge, "::", kFarHost, kLinkLocalNetwork, kLoopback, "::1", "localhost"}) {
      EXPECT_EQ(flagsOf(name), kNoWay) << name;
    }
  });
}

TEST(ReachabilityFlags, WithTheLoopbackAloneTheMachineReachesItselfAndNothingElse) {
  inNetworkNamespace([] {
    ip("link set lo up");
    EXPECT_TRUE(becomes(kLoopback, kReachableHere));
    EXPECT_EQ(flagsOf("127.255.0.3"), kReachableHere);
    EXPECT_EQ(flagsOf(kNetworkAtLarge), kNoWay) << "the loopback is no default route";
    EXPECT_EQ(flagsOf("::"), kNoWay);
    EXPECT_EQ(flagsOf(kFarHost), kNoWay);
    EXPECT_EQ(flagsOf(kLinkLocalNetwork), kNoWay);
  });
}

TEST(ReachabilityFlags, WithADefaultRouteEverythingIsReachableThroughTheGatewayAndTheOwnNetworkDirectly) {
  inNetworkNamespace([] {
    connectToNetwork();
    EXPECT_TRUE(becomes(kNetworkAtLarge, kReachable));
    EXPECT_EQ(flagsOf("::"), kReachable) << "the network at large is that of both IP versions";
    EXPECT_EQ(flagsOf(kFarHost), kReachable);
    EXPECT_EQ(flagsOf(kLinkLocalNetwork), kReachable) << "reachable, but not attached";
    EXPECT_EQ(flagsOf("192.0.2.1"), kReachableDirectly);
    EXPECT_EQ(flagsOf("192.0.2.2"), kReachableHere);
  });
}

TEST(ReachabilityFlags, WithALinkLocalRouteThatNetworkIsDirectAndNothingElseReachable) {
  inNetworkNamespace([] {
    addCable("v0");
    ip("address add 169.254.7.7/16 dev v0");
    EXPECT_TRUE(becomes(kLinkLocalNetwork, kReachableDirectly));
    EXPECT_EQ(flagsOf(kNetworkAtLarge), kNoWay);
    EXPECT_EQ(flagsOf(kFarHost), kNoWay);
  });
}

TEST(ReachabilityFlags, WithTheInterfaceDownOrItsCableUnpluggedNothingIsReachable) {
  inNetworkNamespace([] {
    connectToNetwork();
    ASSERT_TRUE(becomes(kNetworkAtLarge, kReachable));
    ip("link set v0p down");  // the route stays, the carrier goes
    EXPECT_TRUE(becomes(kNetworkAtLarge, kNoWay));
    EXPECT_TRUE(becomes(kFarHost, kNoWay));
    ip("link set v0p up");
    EXPECT_TRUE(becomes(kNetworkAtLarge, kReachable));
    ip("link set v0 down");
    EXPECT_EQ(flagsOf(kNetworkAtLarge), kNoWay);
    EXPECT_EQ(flagsOf(kFarHost), kNoWay);
  });
}

TEST(ReachabilityFlags, ARouteThatRefusesIsNone) {
  inNetworkNamespace([] {
    for (const char* kind : {"unreachable", "prohibit", "blackhole"}) {
      ip(std::string("route add ") + kind + " default");
      EXPECT_EQ(flagsOf(kNetworkAtLarge), kNoWay) << kind;
      EXPECT_EQ(flagsOf(kFarHost), kNoWay) << kind;
      ip(std::string("route del ") + kind + " default");
    }
    connectToNetwork();
    ASSERT_TRUE(becomes(kFarHost, kReachable));
    ip("route add unreachable 198.51.100.0/24");
    EXPECT_EQ(flagsOf(kFarHost), kNoWay) << "the default route does not count for what has a route of its own";
    EXPECT_EQ(flagsOf(kNetworkAtLarge), kReachable);
  });
}

TEST(ReachabilityFlags, ADefaultRouteOfATableThatNothingLeadsToDoesNotCount) {
  inNetworkNamespace([] {
    addCable("v0");
    ip("address add 192.0.2.2/24 dev v0");
    ip("route add default via 192.0.2.1 table 100");
    ASSERT_TRUE(becomes("192.0.2.1", kReachableDirectly));
    EXPECT_EQ(flagsOf(kNetworkAtLarge), kNoWay);
    EXPECT_EQ(flagsOf(kFarHost), kNoWay);
  });
}

TEST(ReachabilityFlags, ADefaultRouteOverTwoWaysLastsAsLongAsOneOfThem) {
  inNetworkNamespace([] {
    addCable("v0");
    addCable("v1");
    ip("address add 192.0.2.2/24 dev v0");
    ip("address add 203.0.113.2/24 dev v1");
    ip("route add default nexthop via 192.0.2.1 nexthop via 203.0.113.1");
    EXPECT_TRUE(becomes(kNetworkAtLarge, kReachable));
    ip("link set v0p down");
    EXPECT_TRUE(becomes("192.0.2.1", kNoWay));
    EXPECT_EQ(flagsOf(kNetworkAtLarge), kReachable);
    ip("link set v1p down");
    EXPECT_TRUE(becomes(kNetworkAtLarge, kNoWay));
  });
}

TEST(ReachabilityFlags, ADefaultRouteOfTheNewerIPVersionIsOneToo) {
  inNetworkNamespace([] {
    if (!std::filesystem::exists("/proc/sys/net/ipv6")) GTEST_SKIP() << "left out: the kernel has no IPv6";
    addCable("v0");
    ip("address add 2001:db8::2/64 dev v0 nodad");
    ip("route add default via 2001:db8::1");
    EXPECT_TRUE(becomes(kNetworkAtLarge, kReachable));
    EXPECT_EQ(flagsOf("2001:db8:1::1"), kReachable);
    EXPECT_EQ(flagsOf("2001:db8::1"), kReachableDirectly);
    EXPECT_EQ(flagsOf(kFarHost), kNoWay);
  });
}

TEST(ReachabilityFlags, ATunnelIsTransientAndNeverDirect) {
  inNetworkNamespace([] {
    const FileHandle device(open("/dev/net/tun", O_RDWR | O_CLOEXEC));
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    std::strcpy(request.ifr_name, "t0");
    if (!device.isOpen() || ioctl(device.fileDescriptor(), TUNSETIFF, &request) != 0) {
      GTEST_SKIP() << "left out: a tunnel, because /dev/net/tun cannot be used here";
    }
    ip("link set t0 up");
    ip("route add default dev t0");
    EXPECT_TRUE(becomes(kNetworkAtLarge, kReachableOverATunnel));
    EXPECT_EQ(flagsOf(kFarHost), kReachableOverATunnel);
    EXPECT_EQ(flagsOf(kLinkLocalNetwork), kReachableOverATunnel);
  });
}

TEST(ReachabilityFlags, AHostNameHasTheWayOfItsAddress) {
  inNetworkNamespace([] {
    ip("link set lo up");
    EXPECT_TRUE(becomes("localhost", kReachableHere));
    EXPECT_EQ(flagsOf("no-such-host.invalid"), kNoWay) << "a name that cannot be resolved leads nowhere";
  });
}

}  // namespace
}  // namespace platform
