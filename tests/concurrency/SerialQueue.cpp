#include "platform/concurrency/queue/SerialQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/concurrency/queue/ThreadPool.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/log/Log.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::SerialQueue;

TEST(SerialQueue, RunsBlocksInOrderOneAfterAnotherAndShowsWhatTheFormerWrote) {
  const auto queue = SerialQueue::create("order");
  const int count = longOrShort(20000, 2000);
  std::vector<int> ran;  // no lock: the queue itself keeps its blocks apart
  for (int i = 0; i < count; ++i) queue->async([&, i] { ran.push_back(i); });
  queue->sync([] {});
  ASSERT_EQ(ran.size(), static_cast<std::size_t>(count));
  EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

TEST(SerialQueue, RunsEachBlockOnceWhenManyThreadsAdd) {
  const auto queue = SerialQueue::create();
  int total = 0;
  constexpr int kEach = 2000;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) queue->async([&] { ++total; });
    });
  }
  for (auto& thread : threads) thread.join();
  queue->sync([&] { EXPECT_EQ(total, 4 * kEach); });
}

TEST(SerialQueue, ShowsABlockWhatTheAddingThreadWrote) {
  const auto queue = SerialQueue::create();
  int written = 0;
  std::promise<int> seen;
  written = 7;
  queue->async([&] { seen.set_value(written); });
  EXPECT_EQ(seen.get_future().get(), 7);
}

TEST(SerialQueue, HoldsUpNoOtherQueueWithABlockThatDoesNotReturn) {
  std::promise<void> release;
  const auto released = release.get_future().share();
  std::vector<std::shared_ptr<SerialQueue>> blocked;
  std::atomic<int> begun = 0;
  for (int i = 0; i < 40; ++i) {
    blocked.push_back(SerialQueue::create("blocked"));
    blocked.back()->async([&begun, released] { ++begun, released.wait(); });
  }
  EXPECT_TRUE(eventually([&] { return begun == 40; }));
  const auto free = SerialQueue::create("free");
  bool ran = false;
  free->sync([&] { ran = true; });
  EXPECT_TRUE(ran);
  bool behind = false;
  blocked.front()->async([&] { behind = true; });
  free->sync([&] { EXPECT_FALSE(behind); });
  release.set_value();
  for (const auto& queue : blocked) queue->sync([] {});
  EXPECT_TRUE(behind);
}

TEST(SerialQueue, LivesUntilItsLastBlockRan) {
  std::promise<void> release;
  const auto released = release.get_future().share();
  std::promise<void> last;
  std::weak_ptr<SerialQueue> gone;
  {
    const auto queue = SerialQueue::create();
    gone = queue;
    queue->async([released] { released.wait(); });
    queue->async([&last] { last.set_value(); });
  }
  EXPECT_FALSE(gone.expired());
  release.set_value();
  last.get_future().wait();
  EXPECT_TRUE(eventually([&] { return gone.expired(); }));
}

TEST(SerialQueue, BeginsNoBlockWhileSuspended) {
  const auto queue = SerialQueue::create();
  const auto other = SerialQueue::create();
  std::atomic<int> ran = 0;
  queue->suspend();
  queue->suspend();
  queue->async([&] { ++ran; });
  queue->resume();
  other->sync([] {});
  EXPECT_EQ(ran, 0);
  queue->resume();
  queue->sync([] {});
  EXPECT_EQ(ran, 1);
}

TEST(SerialQueue, LetsARunningBlockEndWhenSuspended) {
  const auto queue = SerialQueue::create();
  std::promise<void> ended;
  std::atomic<bool> next = false;
  queue->async([&] { queue->suspend(); });
  queue->async([&] { next = true; });
  SerialQueue::create()->async([&] { ended.set_value(); });
  ended.get_future().wait();
  EXPECT_TRUE(eventually([&] { return platform::ThreadPool::shared().threads() == platform::ThreadPool::shared().parked(); }));
  EXPECT_FALSE(next);
  queue->resume();
  queue->sync([] {});
  EXPECT_TRUE(next);
}

TEST(SerialQueue, RefusesAResumeTooMany) {
  const auto queue = SerialQueue::create();
  queue->suspend();
  queue->resume();
  EXPECT_THROW(queue->resume(), platform::Exception);
  bool ran = false;
  queue->sync([&] { ran = true; });
  EXPECT_TRUE(ran);
}

TEST(SerialQueue, DestroysTheBlocksOfASuspendedQueueThatNobodyHolds) {
  const auto held = std::make_shared<int>(0);
  auto queue = SerialQueue::create();
  queue->suspend();
  queue->async([held] { FAIL() << "the queue was suspended"; });
  EXPECT_EQ(held.use_count(), 2);
  queue.reset();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(SerialQueue, SaysAnExceptionInTheLogAndGoesOn) {
  testing::internal::CaptureStderr();
  const auto queue = SerialQueue::create("throwing");
  queue->async([] { throw platform::Exception("SomeName", "the reason"); });
  queue->async([] { throw std::runtime_error("a plain one"); });
  queue->sync([] { throw 7; });
  bool ran = false;
  queue->sync([&] { ran = true; });
  platform::flushLog();
  const auto log = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(ran);
  EXPECT_NE(log.find("SomeName: the reason"), std::string::npos) << log;
  EXPECT_NE(log.find("a plain one"), std::string::npos) << log;
  EXPECT_NE(log.find("throwing"), std::string::npos) << log;
}

TEST(SerialQueue, KnowsItsLabelAndWhetherItIsCurrent) {
  const auto queue = SerialQueue::create("a label longer than a thread's name");
  const auto other = SerialQueue::create();
  EXPECT_EQ(queue->label(), "a label longer than a thread's name");
  EXPECT_EQ(other->label(), "");
  EXPECT_FALSE(queue->isCurrent());
  queue->sync([&] {
    EXPECT_TRUE(queue->isCurrent());
    EXPECT_FALSE(other->isCurrent());
    other->sync([&] {
      EXPECT_TRUE(other->isCurrent());
      EXPECT_FALSE(queue->isCurrent());
    });
    EXPECT_TRUE(queue->isCurrent());
  });
}

TEST(SerialQueue, GivesEachBorrowerAFreshRunLoop) {
  const auto queue = SerialQueue::create();
  const auto held = std::make_shared<int>(0);
  queue->sync([held] {
    platform::RunLoop::current()->perform([held] { FAIL() << "left behind by a former borrower"; });
    platform::RunLoop::current()->add(platform::RunLoopSource::create([held] {}));
  });
  EXPECT_TRUE(eventually([&] { return held.use_count() == 1; }));
  for (int i = 0; i < 20; ++i) queue->sync([] { platform::RunLoop::current()->run(); });
}

TEST(MainQueue, IsServedByTheMainRunLoopInOrder) {
  const auto queue = platform::mainQueue();
  std::vector<int> ran;
  for (int i = 0; i < 100; ++i) {
    queue->async([&, i] {
      EXPECT_TRUE(queue->isCurrent());
      ran.push_back(i);
    });
  }
  EXPECT_TRUE(ran.empty());
  platform::RunLoop::main()->run();
  ASSERT_EQ(ran.size(), 100U);
  EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
  EXPECT_FALSE(queue->isCurrent());
}

TEST(MainQueue, WakesASleepingMainLoopAndServesSyncFromOtherThreads) {
  const auto loop = platform::RunLoop::main();
  const auto keeper = platform::RunLoopSource::create([] {});
  loop->add(keeper);
  const auto mainThread = std::this_thread::get_id();
  std::thread other([&] {
    EXPECT_TRUE(eventually([&] { return loop->isRunning(); }));
    bool ran = false;
    platform::mainQueue()->sync([&] { ran = std::this_thread::get_id() == mainThread; });
    EXPECT_TRUE(ran);
    keeper->invalidate();
  });
  loop->run();
  other.join();
}

TEST(MainQueue, IsNotSuspendedAndOutlivesDiscardedBlocks) {
  const auto queue = platform::mainQueue();
  queue->suspend();
  bool ran = false;
  queue->async([&] { ran = true; });
  platform::RunLoop::main()->perform([] { FAIL() << "discarded"; });
  platform::RunLoop::main()->discardPerformed();
  platform::RunLoop::main()->run();
  EXPECT_TRUE(ran);
  queue->resume();
}

TEST(MainQueue, SaysAnExceptionInTheLogInsteadOfLettingItOut) {
  testing::internal::CaptureStderr();
  platform::mainQueue()->async([] { throw std::runtime_error("from the main queue"); });
  EXPECT_NO_THROW(platform::RunLoop::main()->run());
  platform::flushLog();
  EXPECT_NE(testing::internal::GetCapturedStderr().find("from the main queue"), std::string::npos);
}

}  // namespace
}  // namespace kestrine::test
