#include "platform/concurrency/queue/SynchronousExecutor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/concurrency/queue/SerialQueue.h"

namespace kestrine::test {
namespace {

using platform::NotificationCenter;
using platform::OperationQueue;
using platform::synchronousExecutor;

TEST(SynchronousExecutor, ReturnsAfterTheBlockRanOnTheQueue) {
  const auto queue = OperationQueue::create();
  const auto execute = synchronousExecutor(queue);
  int ran = 0;  // no lock: that the block has run is seen by the caller
  for (int i = 0; i < 100; ++i) {
    execute([&] {
      ++ran;
      EXPECT_EQ(OperationQueue::currentQueue(), queue);
    });
    ASSERT_EQ(ran, i + 1);
  }
}

TEST(SynchronousExecutor, RunsTheBlockAtOnceOnTheQueueItself) {
  const auto queue = OperationQueue::create();
  queue->setMaxConcurrentOperationCount(1);
  const auto execute = synchronousExecutor(queue);
  std::thread::id outer;
  std::thread::id inner;
  execute([&] {
    outer = std::this_thread::get_id();
    execute([&] { inner = std::this_thread::get_id(); });
  });
  EXPECT_EQ(outer, inner);
}

TEST(SynchronousExecutor, ReturnsWhenTheBlockThrows) {
  const auto execute = synchronousExecutor(OperationQueue::create());
  EXPECT_NO_THROW(execute([] { throw std::runtime_error("as asked"); }));
}

TEST(SynchronousExecutor, RunsTheBlockAtOnceOnTheMainThread) {
  bool ran = false;
  synchronousExecutor(OperationQueue::mainQueue())([&] { ran = true; });
  EXPECT_TRUE(ran) << "although nobody runs the main run loop";
  ran = false;
  platform::mainQueue()->async([&] {
    synchronousExecutor(OperationQueue::mainQueue())([&] { ran = true; });
    EXPECT_TRUE(ran);
  });
  platform::RunLoop::main()->run();
  EXPECT_TRUE(ran);
}

TEST(SynchronousExecutor, BringsANotificationFromAnotherThreadToTheMainQueueAndBack) {
  const auto mainThread = std::this_thread::get_id();
  std::thread::id observed;
  NotificationCenter center;
  auto observation = center.addObserver("news", synchronousExecutor(OperationQueue::mainQueue()),
                                        [&](const platform::Notification&) { observed = std::this_thread::get_id(); });
  const auto anchor = platform::RunLoopSource::create([] {});
  platform::RunLoop::main()->add(anchor);
  auto posting = std::async(std::launch::async, [&] {
    center.postNotification({"news", {}});
    const bool seen = observed == mainThread;
    anchor->invalidate();
    return seen;
  });
  platform::RunLoop::main()->run();
  EXPECT_TRUE(posting.get()) << "the post returned before the block had run";
}

}  // namespace
}  // namespace kestrine::test
