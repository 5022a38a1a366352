#include "Services/Reachability/Reachability.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/process/Assertion.h"
#include "platform/foundation/process/NotificationCenter.h"
#include "tests/foundation/CapturedStandardError.h"
#include "tests/services/FixedTarget.h"

namespace kestrine::test {
namespace {

using platform::AssertionFailure;

/// The notifications posted while it lives.
class Listener {
 public:
  std::vector<platform::Notification> heard;

 private:
  platform::NotificationCenter::Observation observation_ = platform::NotificationCenter::defaultCenter().addObserver(
      "kNetworkReachabilityChangedNotification", {}, [this](const platform::Notification& told) { heard.push_back(told); });
};

/// A handler that returns, and what it was told.
class ReturningHandler {
 public:
  ReturningHandler() {
    platform::setAssertionHandler([this](const AssertionFailure& failure) { failures.push_back(failure); });
  }
  ~ReturningHandler() { platform::setAssertionHandler({}); }
  ReturningHandler(const ReturningHandler&) = delete;
  ReturningHandler& operator=(const ReturningHandler&) = delete;
  std::vector<AssertionFailure> failures;
};

TEST(Reachability, GivesTheConnectionRequiredBitItself) {
  EXPECT_EQ(Reachability::reachabilityWithTarget(std::make_shared<FixedTarget>(0x6))->connectionRequired(), 4U);
  EXPECT_EQ(Reachability::reachabilityWithTarget(std::make_shared<FixedTarget>(0x3B))->connectionRequired(), 0U);
}

TEST(Reachability, TakesFlagsThatCannotBeReadForNotReachable) {
  const auto reachability = Reachability::reachabilityWithTarget(std::make_shared<FixedTarget>(std::nullopt));
  EXPECT_EQ(reachability->currentReachabilityStatus(), NetworkStatusNotReachable);
  EXPECT_EQ(reachability->connectionRequired(), 0U);
}

TEST(Reachability, JudgesOrdinaryTargetsByTheNetworkRule) {
  EXPECT_EQ(Reachability::reachabilityWithTarget(std::make_shared<FixedTarget>(0x2))->currentReachabilityStatus(), NetworkStatusReachable);
  EXPECT_EQ(Reachability::reachabilityWithTarget(std::make_shared<FixedTarget>(0x20006))->currentReachabilityStatus(),
            NetworkStatusNotReachable);
}

TEST(Reachability, IsNotMadeWithoutATarget) {
  sockaddr_in otherFamily{};
  otherFamily.sin_family = AF_UNIX;
  EXPECT_FALSE(Reachability::reachabilityWithTarget(nullptr));
  EXPECT_FALSE(Reachability::reachabilityWithAddress(nullptr));
  EXPECT_FALSE(Reachability::reachabilityWithAddress(&otherFamily));
  EXPECT_FALSE(Reachability::reachabilityWithHostName(""));
  EXPECT_TRUE(Reachability::reachabilityWithHostName("localhost"));
  EXPECT_TRUE(Reachability::reachabilityForInternetConnection());
  EXPECT_TRUE(Reachability::reachabilityForLocalWiFi());
}

TEST(Reachability, WithoutATargetConnectionRequiredFailsItsAssertionAndGoesOn) {
  const ReturningHandler handler;
  const Reachability reachability;
  EXPECT_EQ(reachability.connectionRequired(), 0U);
  ASSERT_EQ(handler.failures.size(), 1U);
  EXPECT_EQ(handler.failures[0].function, "connectionRequired");
  EXPECT_EQ(handler.failures[0].object, &reachability);
  EXPECT_EQ(handler.failures[0].file, "Services/Reachability/Reachability");
  EXPECT_EQ(handler.failures[0].line, 245);
  EXPECT_EQ(handler.failures[0].description, "connectionRequired called with NULL reachabilityRef");
}

TEST(Reachability, WithoutATargetCurrentReachabilityStatusFailsItsAssertionUnderAnOlderNameAndGoesOn) {
  const ReturningHandler handler;
  const Reachability reachability;
  EXPECT_EQ(reachability.currentReachabilityStatus(), NetworkStatusNotReachable);
  ASSERT_EQ(handler.failures.size(), 1U);
  EXPECT_EQ(handler.failures[0].function, "currentReachabilityStatus");
  EXPECT_EQ(handler.failures[0].object, &reachability);
  EXPECT_EQ(handler.failures[0].file, "Services/Reachability/Reachability");
  EXPECT_EQ(handler.failures[0].line, 256);
  EXPECT_EQ(handler.failures[0].description, "currentNetworkStatus called with NULL reachabilityRef");
}

TEST(Reachability, WithoutATargetThrowsUnlessTheHandlerReturns) {
  const platform::CapturedStandardError captured;
  const Reachability reachability;
  for (const auto& ask : {std::function<void()>([&] { static_cast<void>(reachability.connectionRequired()); }),
                          std::function<void()>([&] { static_cast<void>(reachability.currentReachabilityStatus()); })}) {
    try {
      ask();
      ADD_FAILURE() << "nothing was thrown";
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "NSInternalInconsistencyException");
    }
  }
}

TEST(Reachability, WithoutATargetHasNothingToNotifyOf) {
  Reachability reachability;
  EXPECT_FALSE(reachability.startNotifier());
  reachability.stopNotifier();
}

TEST(Reachability, PostsItselfUnderTheNotificationsNameAndNothingElse) {
  const auto target = std::make_shared<FixedTarget>(0x2);
  const auto reachability = Reachability::reachabilityWithTarget(target);
  const Listener listener;
  ASSERT_TRUE(reachability->startNotifier());
  EXPECT_EQ(target->schedules, 1);
  target->change();
  ASSERT_EQ(listener.heard.size(), 1U);
  EXPECT_EQ(std::any_cast<std::shared_ptr<Reachability>>(listener.heard[0].object), reachability);
}

TEST(Reachability, StopsAtTheStopAndCanStartAgain) {
  const auto target = std::make_shared<FixedTarget>(0x2);
  const auto reachability = Reachability::reachabilityWithTarget(target);
  ASSERT_TRUE(reachability->startNotifier());
  reachability->stopNotifier();
  EXPECT_EQ(target->schedules, 0);
  ASSERT_TRUE(reachability->startNotifier());
  EXPECT_EQ(target->schedules, 1);
}

TEST(Reachability, StopsWhenItIsReleasedAndItsTargetCallsNobodyThen) {
  const auto target = std::make_shared<FixedTarget>(0x2);
  auto reachability = Reachability::reachabilityWithTarget(target);
  const Listener listener;
  ASSERT_TRUE(reachability->startNotifier());
  EXPECT_EQ(reachability.use_count(), 1) << "it keeps itself alive";
  reachability.reset();
  EXPECT_EQ(target->schedules, 0);
  target->change();
  EXPECT_TRUE(listener.heard.empty());
}

TEST(Reachability, DoesNotScheduleWhenTheCallbackIsRefused) {
  const auto target = std::make_shared<FixedTarget>(0x2);
  target->acceptsCallback = false;
  EXPECT_FALSE(Reachability::reachabilityWithTarget(target)->startNotifier());
  EXPECT_EQ(target->schedules, 0);
}

TEST(Reachability, DoesNotStartWhenTheScheduleIsRefused) {
  const auto target = std::make_shared<FixedTarget>(0x2);
  target->acceptsSchedule = false;
  EXPECT_FALSE(Reachability::reachabilityWithTarget(target)->startNotifier());
}

TEST(Reachability, LeavesNothingBehindWhenItIsOnlyAsked) {
  const auto openDescriptors = [] {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return std::distance(begin(descriptors), end(descriptors));
  };
  std::thread([&openDescriptors] {
    // On a thread without a run loop: asking makes none.
    const auto before = openDescriptors();
    for (int i = 0; i < 200; ++i) Reachability::isReachable();
    EXPECT_EQ(openDescriptors(), before);
  }).join();
}

TEST(Reachability, TheHookDoesNothing) { PrintReachabilityFlags(0x2, "networkStatusForFlags"); }

}  // namespace
}  // namespace kestrine::test
