#include "platform/reachability/ReachabilityTarget.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string_view>

#include "tests/network/ReachabilityWatch.h"

namespace platform {
namespace {

std::ptrdiff_t openDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return std::distance(begin(descriptors), end(descriptors));
}

std::shared_ptr<ReachabilityTarget> targetOfFamily(sa_family_t family) {
  sockaddr_in6 address{};
  address.sin6_family = family;
  return ReachabilityTarget::createWithAddress(reinterpret_cast<const sockaddr*>(&address));
}

TEST(ReachabilityTarget, IsMadeForAddressesOfBothIPVersions) {
  EXPECT_TRUE(targetOfFamily(AF_INET));
  EXPECT_TRUE(targetOfFamily(AF_INET6));
}

TEST(ReachabilityTarget, IsRefusedForNoAddressAndForOtherFamilies) {
  EXPECT_FALSE(ReachabilityTarget::createWithAddress(nullptr));
  EXPECT_FALSE(targetOfFamily(AF_UNSPEC));
  EXPECT_FALSE(targetOfFamily(AF_UNIX));
}

TEST(ReachabilityTarget, IsRefusedForANameThatNoHostCanHave) {
  EXPECT_FALSE(ReachabilityTarget::createWithName(""));
  EXPECT_FALSE(ReachabilityTarget::createWithName(std::string_view("local\0host", 10)));
}

TEST(ReachabilityTarget, OwnsNoDescriptorUntilItIsScheduled) {
  ASSERT_TRUE(flagsOf("127.0.0.1") != 0xFFFFFFFF) << "the kernel cannot be asked here";
  const auto before = openDescriptors();
  std::vector<std::shared_ptr<ReachabilityTarget>> targets;
  for (int i = 0; i < 5000; ++i) {
    targets.push_back(targetOf("0.0.0.0"));
    if (i % 50 == 0) {
      EXPECT_TRUE(targets.back()->flags());
    }
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST(ReachabilityTarget, OwnsOneDescriptorForEachScheduleAndGivesItBack) {
  const auto target = targetOf("127.0.0.1");
  const auto loop = RunLoop::current();
  const auto before = openDescriptors();
  ASSERT_TRUE(target->scheduleWithRunLoop(loop));
  EXPECT_EQ(openDescriptors(), before + 1);
  ASSERT_TRUE(target->scheduleWithRunLoop(loop));
  EXPECT_EQ(openDescriptors(), before + 2);
  EXPECT_TRUE(target->unscheduleFromRunLoop(loop));
  EXPECT_TRUE(target->isScheduled());
  EXPECT_TRUE(target->unscheduleFromRunLoop(loop));
  EXPECT_FALSE(target->isScheduled());
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_FALSE(target->unscheduleFromRunLoop(loop)) << "a schedule too many was ended";
}

TEST(ReachabilityTarget, LetsTheRunLoopEndWhenItIsReleased) {
  auto target = targetOf("127.0.0.1");
  const auto loop = RunLoop::current();
  const auto before = openDescriptors();
  ASSERT_TRUE(target->scheduleWithRunLoop(loop));
  loop->perform([&target] { target.reset(); });
  loop->run();
  EXPECT_EQ(openDescriptors(), before);
}

TEST(ReachabilityTarget, IsNotFoundOnALoopThatItWasNotScheduledOn) {
  const auto target = targetOf("127.0.0.1");
  ASSERT_TRUE(target->scheduleWithRunLoop(RunLoop::current()));
  std::thread other([&target] { EXPECT_FALSE(target->unscheduleFromRunLoop(RunLoop::current())); });
  other.join();
  EXPECT_TRUE(target->isScheduled());
}

}  // namespace
}  // namespace platform
