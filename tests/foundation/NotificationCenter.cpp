#include "platform/foundation/process/NotificationCenter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace platform {
namespace {

using Observation = NotificationCenter::Observation;
using testing::ElementsAre;

TEST(NotificationCenter, DeliversByNameWithTheObject) {
  NotificationCenter center;
  std::vector<std::string> seen;
  const Observation observation = center.addObserver("wanted", nullptr, [&](const Notification& notification) {
    seen.push_back(notification.name + "=" + std::to_string(std::any_cast<int>(notification.object)));
  });
  center.postNotification({"other", 1});
  center.postNotification({"wanted", 2});
  EXPECT_THAT(seen, ElementsAre("wanted=2"));
}

TEST(NotificationCenter, PostsWithoutObservers) {
  NotificationCenter center;
  EXPECT_NO_THROW(center.postNotification({"nobody", {}}));
}

TEST(NotificationCenter, DeliversInTheOrderOfRegistrationBeforePostReturns) {
  NotificationCenter center;
  std::vector<int> order;
  std::vector<Observation> observations;
  observations.reserve(20);
  for (int i = 0; i < 20; ++i)
    observations.push_back(center.addObserver("n", nullptr, [&order, i](const Notification&) { order.push_back(i); }));
  center.postNotification({"n", {}});
  ASSERT_EQ(order.size(), 20U);
  EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST(NotificationCenter, RunsTheBlockOnThePostersThread) {
  NotificationCenter center;
  std::thread::id ran;
  std::thread::id poster;
  const Observation observation = center.addObserver("n", nullptr, [&](const Notification&) { ran = std::this_thread::get_id(); });
  std::thread([&] {
    poster = std::this_thread::get_id();
    center.postNotification({"n", {}});
  }).join();
  EXPECT_EQ(ran, poster);
}

TEST(NotificationCenter, RunsTheBlockThroughTheQueueAndWaitsForIt) {
  NotificationCenter center;
  std::thread::id ran;
  std::thread::id queueThread;
  const SynchronousExecutor queue = [&](const std::function<void()>& work) {
    std::thread([&] {
      queueThread = std::this_thread::get_id();
      work();
    }).join();
  };
  const Observation observation = center.addObserver("n", queue, [&](const Notification&) { ran = std::this_thread::get_id(); });
  center.postNotification({"n", {}});
  EXPECT_EQ(ran, queueThread);
  EXPECT_NE(ran, std::this_thread::get_id());
}

TEST(NotificationCenter, ForgetsAnObserverWhenItsObservationGoes) {
  NotificationCenter center;
  int calls = 0;
  {
    const Observation observation = center.addObserver("n", nullptr, [&](const Notification&) { ++calls; });
    center.postNotification({"n", {}});
  }
  center.postNotification({"n", {}});
  EXPECT_EQ(calls, 1);
}

TEST(NotificationCenter, ForgetsAnObserverThatIsRemovedOrReplaced) {
  NotificationCenter center;
  int calls = 0;
  const auto count = [&](const Notification&) { ++calls; };
  Observation observation = center.addObserver("n", nullptr, count);
  observation.remove();
  observation.remove();
  center.postNotification({"n", {}});
  EXPECT_EQ(calls, 0);
  observation = center.addObserver("n", nullptr, count);
  observation = center.addObserver("n", nullptr, count);
  center.postNotification({"n", {}});
  EXPECT_EQ(calls, 1);
  Observation moved = std::move(observation);
  center.postNotification({"n", {}});
  EXPECT_EQ(calls, 2);
}

TEST(NotificationCenter, KeepsADetachedObserver) {
  NotificationCenter center;
  int calls = 0;
  {
    Observation observation = center.addObserver("n", nullptr, [&](const Notification&) { ++calls; });
    observation.detach();
    observation.remove();
  }
  center.postNotification({"n", {}});
  EXPECT_EQ(calls, 1);
}

TEST(NotificationCenter, ReleasesTheBlockWithTheObservation) {
  NotificationCenter center;
  auto held = std::make_shared<int>(1);
  Observation observation = center.addObserver("n", nullptr, [held](const Notification&) {});
  EXPECT_EQ(held.use_count(), 2);
  observation.remove();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(NotificationCenter, LetsABlockPostObserveAndRemoveItself) {
  NotificationCenter center;
  std::vector<std::string> seen;
  Observation later;
  Observation inner = center.addObserver("inner", nullptr, [&](const Notification&) { seen.emplace_back("inner"); });
  Observation self;
  self = center.addObserver("n", nullptr, [&](const Notification&) {
    seen.emplace_back("outer");
    center.postNotification({"inner", {}});
    later = center.addObserver("n", nullptr, [&](const Notification&) { seen.emplace_back("later"); });
    self.remove();
  });
  center.postNotification({"n", {}});
  EXPECT_THAT(seen, ElementsAre("outer", "inner"));
  center.postNotification({"n", {}});
  EXPECT_THAT(seen, ElementsAre("outer", "inner", "later"));
}

TEST(NotificationCenter, DoesNotCallWhatAnEarlierBlockRemoved) {
  NotificationCenter center;
  int calls = 0;
  Observation second;
  const Observation first = center.addObserver("n", nullptr, [&](const Notification&) { second.remove(); });
  second = center.addObserver("n", nullptr, [&](const Notification&) { ++calls; });
  center.postNotification({"n", {}});
  EXPECT_EQ(calls, 0);
}

TEST(NotificationCenter, MayGoBeforeItsObservations) {
  Observation observation;
  {
    NotificationCenter center;
    observation = center.addObserver("n", nullptr, [](const Notification&) {});
  }
  observation.remove();
}

TEST(NotificationCenter, MayBeDestroyedByABlock) {
  auto center = std::make_unique<NotificationCenter>();
  int calls = 0;
  const Observation first = center->addObserver("n", nullptr, [&](const Notification&) { center.reset(); });
  const Observation second = center->addObserver("n", nullptr, [&](const Notification&) { ++calls; });
  center->postNotification({"n", {}});
  EXPECT_EQ(calls, 1);
}

TEST(NotificationCenter, HasOneDefaultCenter) { EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter()); }

TEST(NotificationCenter, IsSafeToUseFromManyThreads) {
  NotificationCenter center;
  std::atomic<int> calls = 0;
  const Observation fixed = center.addObserver("n", nullptr, [&](const Notification&) { ++calls; });
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        const Observation passing = center.addObserver("n", nullptr, [](const Notification&) {});
        center.postNotification({"n", i});
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(calls, 800);
}

}  // namespace
}  // namespace platform
