// Routes that the kernel takes away without a word, after it has told of what made them go.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "tests/concurrency/LoopThread.h"
#include "tests/network/ReachabilityWatch.h"

namespace platform {
namespace {

/// A target that is watched by a thread of its own, which waits for the kernel and looks as early as can be.
class WaitingWatch {
 public:
  explicit WaitingWatch(const std::string& name, NetworkReachabilityFlags before) : told_(before), target_(targetOf(name)) {
    target_->setCallback([this](const ReachabilityTarget&, NetworkReachabilityFlags flags) { told_ = flags; });
    loop_.emplace([this](RunLoop& mine) { ASSERT_TRUE(target_->scheduleWithRunLoop(mine.shared_from_this())); });
  }
  ~WaitingWatch() { target_->unscheduleFromRunLoop((*loop_)->shared_from_this()); }
  WaitingWatch(const WaitingWatch&) = delete;
  WaitingWatch& operator=(const WaitingWatch&) = delete;

  /// Within less time than the kernel needs to clean up.
  [[nodiscard]] bool tells(NetworkReachabilityFlags flags) const {
    return eventually([&] { return told_ == flags; }, std::chrono::seconds(15));
  }

 private:
  std::atomic<NetworkReachabilityFlags> told_;
  const std::shared_ptr<ReachabilityTarget> target_;
  std::optional<kestrine::test::LoopThread> loop_;
};

TEST(ReachabilitySilence, IsNoticedEachTimeByALoopThatIsWaiting) {
  inNetworkNamespace([] {
    connectAndWait();
    const WaitingWatch watch("0.0.0.0", kReachable);
    const int rounds = kestrine::test::longOrShort(40, 10);
    for (int round = 0; round < rounds; ++round) {
      ip("address del 192.0.2.2/24 dev v0");
      ASSERT_TRUE(watch.tells(kNoWay)) << "missed in round " << round;
      ipBatch("address add 192.0.2.2/24 dev v0\nroute add default via 192.0.2.1\n");
      ASSERT_TRUE(watch.tells(kReachable)) << "missed in round " << round;
    }
  });
}

// A route with a time to live ends silently: until the kernel cleans up, half a minute later, nobody is told. Shortly before, something is
// told that changes nothing. Who looks upon that only, and not once more when it has been quiet for a moment, finds the route alive and
// never hears of its end. (On a machine that is so slow that the news comes after the end, the first look sees it.)
TEST(ReachabilitySilence, IsNoticedShortlyAfterOtherNews) {
  inNetworkNamespace([] {
    if (!std::filesystem::exists("/proc/sys/net/ipv6")) GTEST_SKIP() << "left out: the kernel has no IPv6";
    addCable("v0");
    ip("address add 2001:db8::2/64 dev v0 nodad");
    ASSERT_TRUE(becomes("2001:db8::1", kReachableDirectly));
    // They would be news at a moment of their own.
    ip("-6 address flush scope link");
    const WaitingWatch watch("2001:db8:1::1", kNoWay);
    for (const char* other : {"2001:db8::3/64", "2001:db8::4/64"}) {
      const auto made = std::chrono::steady_clock::now();
      ip("-6 route add default via 2001:db8::1 expires 2");
      ASSERT_TRUE(watch.tells(kReachable));
      std::this_thread::sleep_until(made + std::chrono::milliseconds(1850));
      ip(std::string("address add ") + other + " dev v0 nodad");
      ASSERT_TRUE(watch.tells(kNoWay));
      ip("-6 route flush default");
    }
  });
}

}  // namespace
}  // namespace platform
