#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <atomic>

#include "platform/reachability/NetlinkSocket.h"
#include "tests/concurrency/LoopThread.h"
#include "tests/network/ReachabilityWatch.h"

namespace platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(ReachabilityNotification, IsOneForEachChangeOfTheRoute) {
  inNetworkNamespace([] {
    connectAndWait();
    WatchedTarget watched("0.0.0.0");
    ip("route del default");
    EXPECT_THAT(watched.toldUntil(kNoWay), ElementsAre(kNoWay));
    ip("route add default via 192.0.2.1");
    EXPECT_THAT(watched.toldUntil(kReachable), ElementsAre(kNoWay, kReachable));
  });
}

TEST(ReachabilityNotification, IsOneWhenTheInterfaceGoesDownAndOneWhenItIsBack) {
  inNetworkNamespace([] {
    connectAndWait();
    WatchedTarget watched("0.0.0.0");
    ip("link set v0 down");
    EXPECT_THAT(watched.toldUntil(kNoWay), ElementsAre(kNoWay));
    ipBatch("link set v0 up\nroute add default via 192.0.2.1\n");
    EXPECT_THAT(watched.toldUntil(kReachable), ElementsAre(kNoWay, kReachable));
    ip("link set v0p down");
    EXPECT_THAT(watched.toldUntil(kNoWay), ElementsAre(kNoWay, kReachable, kNoWay));
  });
}

TEST(ReachabilityNotification, ComesAlsoWhenTheRouteGoesSilentlyWithItsAddress) {
  inNetworkNamespace([] {
    connectAndWait();
    WatchedTarget watched("0.0.0.0");
    ip("address del 192.0.2.2/24 dev v0");
    EXPECT_THAT(watched.toldUntil(kNoWay), ElementsAre(kNoWay));
  });
}

TEST(ReachabilityNotification, ComesWhenANexthopObjectGoesAndTakesItsRouteAlong) {
  inNetworkNamespace([] {
    connectToNetwork();
    ip("route del default");
    try {
      ipBatch("nexthop add id 7 via 192.0.2.1 dev v0\nroute add default nhid 7\n");
    } catch (const std::runtime_error& refusal) {
      GTEST_SKIP() << "left out: nexthop objects, because they are refused: " << refusal.what();
    }
    ASSERT_TRUE(eventually([] { return flagsOf("0.0.0.0") == kReachable; }));
    WatchedTarget watched("0.0.0.0");
    ip("nexthop del id 7");
    EXPECT_THAT(watched.toldUntil(kNoWay), ElementsAre(kNoWay));
  });
}

TEST(ReachabilityNotification, DoesNotComeForChangesThatLeaveTheFlags) {
  inNetworkNamespace([] {
    connectAndWait();
    WatchedTarget watched("0.0.0.0");
    ipBatch("address add 203.0.113.9/24 dev v0\nroute add 198.51.100.0/24 via 192.0.2.1\naddress add 169.254.7.7/16 dev v0\n");
    RunLoop::current()->runFor(0.6);
    EXPECT_THAT(watched.told, IsEmpty());
    ip("route del default");
    EXPECT_THAT(watched.toldUntil(kNoWay), ElementsAre(kNoWay));
  });
}

TEST(ReachabilityNotification, IsThatOfTheTargetAndNotOfTheNetworkAtLarge) {
  inNetworkNamespace([] {
    connectAndWait();
    WatchedTarget linkLocal("169.254.0.0");
    WatchedTarget gateway("192.0.2.1");
    ip("address add 169.254.7.7/16 dev v0");
    EXPECT_THAT(linkLocal.toldUntil(kReachableDirectly), ElementsAre(kReachableDirectly));
    EXPECT_THAT(gateway.told, IsEmpty());
  });
}

TEST(ReachabilityNotification, OfAHostNameComesWithItsFirstResolution) {
  inNetworkNamespace([] {
    ip("link set lo up");
    WatchedTarget watched("localhost");
    EXPECT_THAT(watched.toldUntil(kReachableHere), ElementsAre(kReachableHere));
    ip("link set lo down");
    EXPECT_THAT(watched.toldUntil(kNoWay), ElementsAre(kReachableHere, kNoWay));
  });
}

TEST(ReachabilityNotification, OfSeveralChangesWhileTheLoopWasAwayTellsTheLastStateOnly) {
  inNetworkNamespace([] {
    connectAndWait();
    WatchedTarget watched("0.0.0.0");
    ipBatch("route del default\nroute add default via 192.0.2.1\n");
    RunLoop::current()->runFor(0.6);
    EXPECT_THAT(watched.told, IsEmpty());
  });
}

std::string manyRoutes(const char* command, int count) {
  std::string lines;
  for (int i = 0; i < count; ++i) lines += fmt::format("route {} 10.{}.{}.0/24 via 192.0.2.1\n", command, i / 250, i % 250);
  return lines;
}

TEST(ReachabilityNotification, IsNotLostWithWhatTheKernelDrops) {
  inNetworkNamespace([] {
    connectAndWait();
    // A second listener with the same room shows that there was a loss.
    auto listener = NetlinkSocket::open({RTNLGRP_IPV4_ROUTE});
    ASSERT_TRUE(listener);
    WatchedTarget watched("0.0.0.0");
    ipBatch(manyRoutes("add", 3000) + "route del default\n");
    ASSERT_EQ(listener->drain(), NetlinkSocket::Drained::Overrun);
    EXPECT_THAT(watched.toldUntil(kNoWay), ElementsAre(kNoWay));
    ip("route add default via 192.0.2.1");
    EXPECT_THAT(watched.toldUntil(kReachable), ElementsAre(kNoWay, kReachable)) << "deaf after the loss";
  });
}

TEST(NetlinkSocket, TellsMessagesFromALossAndHearsAgainAfterOne) {
  inNetworkNamespace([] {
    auto socket = NetlinkSocket::open({RTNLGRP_IPV4_ROUTE});
    ASSERT_TRUE(socket);
    socket->setReceiveBuffer(2048);
    connectAndWait();
    socket->drain();
    EXPECT_EQ(socket->drain(), NetlinkSocket::Drained::Nothing);
    ip("route add 198.51.100.0/24 via 192.0.2.1");
    EXPECT_EQ(socket->drain(), NetlinkSocket::Drained::Messages);
    ipBatch(manyRoutes("add", 100));
    EXPECT_EQ(socket->drain(), NetlinkSocket::Drained::Overrun);
    EXPECT_EQ(socket->drain(), NetlinkSocket::Drained::Nothing);
    ip("route del 198.51.100.0/24");
    EXPECT_EQ(socket->drain(), NetlinkSocket::Drained::Messages);
  });
}

TEST(ReachabilityNotification, IsNotTheLastThingWhenTheCallbackReleasesTheTarget) {
  inNetworkNamespace([] {
    connectAndWait();
    auto target = targetOf("0.0.0.0");
    const std::weak_ptr<ReachabilityTarget> observer = target;
    int calls = 0;
    target->setCallback([&](const ReachabilityTarget& told, NetworkReachabilityFlags flags) {
      ++calls;
      target.reset();
      EXPECT_EQ(flags, kNoWay);
      EXPECT_EQ(told.flags(), kNoWay) << "the target lives until its callback returned";
    });
    ASSERT_TRUE(target->scheduleWithRunLoop(RunLoop::current()));
    ip("route del default");
    RunLoop::current()->run();  // ends by itself: nothing is scheduled any more
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(observer.expired());
  });
}

TEST(ReachabilityNotification, ComesThroughTheCallbackInForceAndNotAfterTheSchedule) {
  inNetworkNamespace([] {
    connectAndWait();
    WatchedTarget watched("0.0.0.0");
    int calls = 0;
    watched.target->setCallback([&calls](const ReachabilityTarget&, NetworkReachabilityFlags) { ++calls; });
    ip("route del default");
    EXPECT_TRUE(servedUntil([&] { return calls == 1; }));
    EXPECT_THAT(watched.told, IsEmpty());
    ASSERT_TRUE(watched.target->unscheduleFromRunLoop(RunLoop::current()));
    ip("route add default via 192.0.2.1");
    RunLoop::current()->runFor(0.6);
    EXPECT_EQ(calls, 1);
  });
}

TEST(ReachabilityNotification, EndsSafelyFromAnotherThreadInTheMiddleOfChanges) {
  inNetworkNamespace([] {
    connectAndWait();
    std::atomic<bool> done = false;
    std::thread changes([&done] {
      while (!done) ipBatch("route del default\nroute add default via 192.0.2.1\n");
    });
    const int rounds = kestrine::test::longOrShort(60, 20);
    for (int round = 0; round < rounds; ++round) {
      std::atomic<int> calls = 0;
      auto target = targetOf(round % 2 == 0 ? "0.0.0.0" : "localhost");
      target->setCallback([&calls](const ReachabilityTarget&, NetworkReachabilityFlags) { ++calls; });
      kestrine::test::LoopThread loop([&target](RunLoop& mine) { ASSERT_TRUE(target->scheduleWithRunLoop(mine.shared_from_this())); });
      std::this_thread::sleep_for(std::chrono::milliseconds(round));  // another moment each time
      target.reset();
      const int atTheEnd = calls;
      loop.join();
      EXPECT_LE(calls, atTheEnd + 1) << "called again after it was let go of";
    }
    done = true;
    changes.join();
  });
}

}  // namespace
}  // namespace platform
