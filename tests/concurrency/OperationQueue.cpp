#include "platform/concurrency/queue/OperationQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/log/Log.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::Operation;
using platform::OperationQueue;

TEST(OperationQueue, RunsEachOperationOnce) {
  const auto queue = OperationQueue::create();
  std::atomic<int> ran = 0;
  const int count = longOrShort(5000, 500);
  for (int i = 0; i < count; ++i) queue->addOperationWithBlock([&] { ++ran; });
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(ran, count);
  EXPECT_EQ(queue->operationCount(), 0U);
}

TEST(OperationQueue, WithAMaximumOfOneKeepsTheOrder) {
  const auto queue = OperationQueue::create();
  queue->setMaxConcurrentOperationCount(1);
  std::vector<int> ran;  // no lock: the queue itself keeps its operations apart
  for (int i = 0; i < 2000; ++i) queue->addOperationWithBlock([&, i] { ran.push_back(i); });
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(ran.size(), 2000U);
  EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

TEST(OperationQueue, RunsSeveralAtOnceAndNoMoreThanItsMaximum) {
  const auto queue = OperationQueue::create();
  queue->setMaxConcurrentOperationCount(3);
  std::promise<void> release;
  const auto released = release.get_future().share();
  std::atomic<int> inside = 0;
  std::atomic<int> most = 0;
  for (int i = 0; i < 30; ++i) {
    queue->addOperationWithBlock([&, released] {
      const int now = ++inside;
      for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) continue;
      released.wait();
      --inside;
    });
  }
  EXPECT_TRUE(eventually([&] { return inside == 3; }));
  EXPECT_EQ(queue->operationCount(), 30U);
  release.set_value();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(most, 3);
}

TEST(OperationQueue, AMaximumThatGrowsLetsMoreIn) {
  const auto queue = OperationQueue::create();
  queue->setMaxConcurrentOperationCount(1);
  std::promise<void> release;
  const auto released = release.get_future().share();
  std::atomic<int> inside = 0;
  for (int i = 0; i < 5; ++i) queue->addOperationWithBlock([&, released] { ++inside, released.wait(); });
  EXPECT_TRUE(eventually([&] { return inside == 1; }));
  queue->setMaxConcurrentOperationCount(OperationQueue::kDefaultMaxConcurrentOperationCount);
  EXPECT_TRUE(eventually([&] { return inside == 5; }));
  EXPECT_EQ(queue->maxConcurrentOperationCount(), -1);
  release.set_value();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_THROW(queue->setMaxConcurrentOperationCount(0), platform::Exception);
  EXPECT_THROW(queue->setMaxConcurrentOperationCount(-2), platform::Exception);
}

TEST(OperationQueue, ListsExecutingOperationsBeforeWaitingOnes) {
  const auto queue = OperationQueue::create();
  queue->setMaxConcurrentOperationCount(1);
  std::promise<void> release;
  const auto first = Operation::blockOperationWithBlock([&] { release.get_future().wait(); });
  const auto second = Operation::blockOperationWithBlock([] {});
  queue->addOperation(first);
  queue->addOperation(second);
  EXPECT_TRUE(eventually([&] { return first->isExecuting(); }));
  EXPECT_EQ(queue->operations(), (std::vector<std::shared_ptr<Operation>>{first, second}));
  EXPECT_FALSE(second->isExecuting());
  release.set_value();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(queue->operations().empty());
  EXPECT_TRUE(first->isFinished());
  EXPECT_TRUE(second->isFinished());
}

TEST(OperationQueue, ACancelledOperationThatWaitsIsNotRun) {
  const auto queue = OperationQueue::create();
  queue->setSuspended(true);
  std::atomic<int> ran = 0;
  const auto kept = Operation::blockOperationWithBlock([&] { ++ran; });
  const auto cancelled = Operation::blockOperationWithBlock([] { FAIL() << "cancelled"; });
  queue->addOperation(kept);
  queue->addOperation(cancelled);
  cancelled->cancel();
  EXPECT_TRUE(cancelled->isCancelled());
  EXPECT_FALSE(cancelled->isFinished());
  queue->setSuspended(false);
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(cancelled->isFinished());
  EXPECT_EQ(ran, 1);
}

TEST(OperationQueue, ACancelledOperationThatRunsGoesOn) {
  const auto queue = OperationQueue::create();
  bool went = false;
  queue->addOperationWithBlock([&] {
    queue->operations().back()->cancel();
    EXPECT_TRUE(queue->operations().back()->isCancelled());
    went = true;
  });
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(went);
}

TEST(OperationQueue, CancelsAllThatWait) {
  const auto queue = OperationQueue::create();
  queue->setSuspended(true);
  for (int i = 0; i < 10; ++i) queue->addOperationWithBlock([] { FAIL() << "cancelled"; });
  queue->cancelAllOperations();
  queue->setSuspended(false);
  queue->waitUntilAllOperationsAreFinished();
}

TEST(OperationQueue, BeginsNothingWhileSuspended) {
  const auto queue = OperationQueue::create();
  queue->setSuspended(true);
  EXPECT_TRUE(queue->isSuspended());
  std::atomic<int> ran = 0;
  queue->addOperationWithBlock([&] { ++ran; });
  const auto other = OperationQueue::create();
  other->addOperationWithBlock([] {});
  other->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(ran, 0);
  queue->setSuspended(false);
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(ran, 1);
}

TEST(OperationQueue, LivesUntilItsLastOperationEnded) {
  std::promise<void> release;
  std::promise<void> last;
  std::weak_ptr<OperationQueue> gone;
  {
    const auto queue = OperationQueue::create();
    gone = queue;
    queue->setMaxConcurrentOperationCount(1);
    queue->addOperationWithBlock([&] { release.get_future().wait(); });
    queue->addOperationWithBlock([&] { last.set_value(); });
  }
  release.set_value();
  last.get_future().wait();
  EXPECT_TRUE(eventually([&] { return gone.expired(); }));
}

TEST(OperationQueue, DestroysWhatWaitsInASuspendedQueueThatNobodyHolds) {
  const auto held = std::make_shared<int>(0);
  auto queue = OperationQueue::create();
  queue->setSuspended(true);
  queue->addOperationWithBlock([held] { FAIL() << "the queue was suspended"; });
  queue.reset();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(OperationQueue, LetsGoOfABlockWhenItHasRun) {
  const auto held = std::make_shared<int>(0);
  const auto queue = OperationQueue::create();
  const auto operation = Operation::blockOperationWithBlock([held] {});
  queue->addOperation(operation);
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(OperationQueue, TakesAnOperationOnce) {
  const auto queue = OperationQueue::create();
  const auto operation = Operation::blockOperationWithBlock([] {});
  queue->addOperation(operation);
  EXPECT_THROW(queue->addOperation(operation), platform::Exception);
  EXPECT_THROW(OperationQueue::create()->addOperation(operation), platform::Exception);
  EXPECT_THROW(queue->addOperation(nullptr), platform::Exception);
  queue->waitUntilAllOperationsAreFinished();
}

TEST(OperationQueue, SaysAnExceptionInTheLogAndGoesOn) {
  testing::internal::CaptureStderr();
  const auto queue = OperationQueue::create("throwing");
  queue->addOperationWithBlock([] { throw platform::Exception("SomeName", "the reason"); });
  queue->addOperationWithBlock([] { throw std::runtime_error("a plain one"); });
  queue->addOperationWithBlock([] { throw 7; });
  queue->waitUntilAllOperationsAreFinished();
  platform::flushLog();
  const auto log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("throwing"), std::string::npos) << log;
  EXPECT_NE(log.find("SomeName: the reason"), std::string::npos) << log;
  EXPECT_NE(log.find("a plain one"), std::string::npos) << log;
}

TEST(OperationQueue, KnowsTheCurrentOne) {
  EXPECT_EQ(OperationQueue::currentQueue(), nullptr);
  const auto queue = OperationQueue::create("named");
  EXPECT_EQ(queue->name(), "named");
  queue->addOperationWithBlock([&] { EXPECT_EQ(OperationQueue::currentQueue(), queue); });
  queue->waitUntilAllOperationsAreFinished();
}

TEST(MainOperationQueue, IsServedByTheMainRunLoopInOrder) {
  const auto queue = OperationQueue::mainQueue();
  EXPECT_EQ(queue->maxConcurrentOperationCount(), 1);
  std::vector<int> ran;
  for (int i = 0; i < 10; ++i) {
    queue->addOperationWithBlock([&, i] {
      EXPECT_EQ(OperationQueue::currentQueue(), queue);
      ran.push_back(i);
    });
  }
  const auto cancelled = Operation::blockOperationWithBlock([] { FAIL() << "cancelled"; });
  queue->addOperation(cancelled);
  cancelled->cancel();
  EXPECT_TRUE(ran.empty());
  EXPECT_EQ(queue->operationCount(), 11U);
  platform::RunLoop::main()->run();
  EXPECT_EQ(ran.size(), 10U);
  EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
  EXPECT_TRUE(cancelled->isFinished());
  EXPECT_EQ(queue->operationCount(), 0U);
}

TEST(MainOperationQueue, TakesOperationsFromManyThreads) {
  const auto queue = OperationQueue::mainQueue();
  int ran = 0;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) queue->addOperationWithBlock([&] { ++ran; });
    });
  }
  for (auto& thread : threads) thread.join();
  platform::RunLoop::main()->run();
  EXPECT_EQ(ran, 800);
}

}  // namespace
}  // namespace kestrine::test
