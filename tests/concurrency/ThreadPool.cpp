#include "platform/concurrency/queue/ThreadPool.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <stdexcept>
#include <vector>

#include "platform/concurrency/queue/SerialQueue.h"
#include "tests/support/Eventually.h"
#include "tests/support/KernelFilter.h"

namespace kestrine::test {
namespace {

using platform::runOnPoolThread;
using platform::ThreadPool;

TEST(ThreadPool, RunsAsManyBlocksAtOnceAsThereAreAndParksFourThreads) {
  std::promise<void> release;
  const auto released = release.get_future().share();
  std::atomic<int> begun = 0;
  std::atomic<int> ended = 0;
  for (int i = 0; i < 30; ++i) runOnPoolThread([&, released] { ++begun, released.wait(), ++ended; });
  EXPECT_TRUE(eventually([&] { return begun == 30; }));
  EXPECT_EQ(ThreadPool::shared().threads(), 30U);
  release.set_value();
  EXPECT_TRUE(eventually([&] { return ended == 30 && ThreadPool::shared().threads() == 4; }));
  EXPECT_TRUE(eventually([&] { return ThreadPool::shared().parked() == 4; }));
}

TEST(ThreadPool, UsesItsParkedThreadsAgain) {
  for (int i = 0; i < 200; ++i) {
    std::promise<void> ran;
    runOnPoolThread([&] { ran.set_value(); });
    ran.get_future().wait();
  }
  // Each block found the pool idle or one thread short of idle.
  EXPECT_LE(ThreadPool::shared().threads(), 4U);
}

TEST(ThreadPool, RunsEveryBlockOfAStorm) {
  const int count = longOrShort(20000, 2000);
  std::atomic<int> ran = 0;
  for (int i = 0; i < count; ++i) runOnPoolThread([&] { ++ran; });
  EXPECT_TRUE(eventually([&] { return ran == count; }));
  EXPECT_TRUE(eventually([&] { return ThreadPool::shared().threads() <= 4; }));
}

TEST(ThreadPool, SurvivesABlockThatThrows) {
  runOnPoolThread([] { throw std::runtime_error("ends here"); });
  std::promise<void> ran;
  runOnPoolThread([&] { ran.set_value(); });
  ran.get_future().wait();
}

TEST(ThreadPool, KeepsABlockForTheNextThreadWhenTheSystemGivesNone) {
  std::promise<void> release;
  const auto released = release.get_future().share();
  std::atomic<std::size_t> begun = 0;
  ThreadPool& pool = ThreadPool::shared();
  ASSERT_TRUE(eventually([&] { return pool.threads() == pool.parked(); }));
  const auto busy = std::max<std::size_t>(pool.threads(), 1);
  for (std::size_t i = 0; i < busy; ++i) runOnPoolThread([&begun, released] { ++begun, released.wait(); });
  ASSERT_TRUE(eventually([&] { return begun == busy; }));
  std::atomic<bool> ran = false;
  const bool tried = withoutThreads([&] { runOnPoolThread([&ran] { ran = true; }); });
  EXPECT_EQ(pool.threads(), busy);
  EXPECT_FALSE(ran && tried);
  release.set_value();
  EXPECT_TRUE(eventually([&] { return ran || !tried; }));
  if (!tried) GTEST_SKIP() << "left out: a thread that cannot be made, because system calls cannot be filtered here";
}

TEST(ThreadPool, LeavesSignalsToTheMainThread) {
  std::promise<bool> blocked;
  runOnPoolThread([&] {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    blocked.set_value(sigismember(&mask, SIGTERM) == 1);
  });
  EXPECT_TRUE(blocked.get_future().get());
  sigset_t mine;
  pthread_sigmask(SIG_SETMASK, nullptr, &mine);
  EXPECT_EQ(sigismember(&mine, SIGTERM), 0);
}

}  // namespace
}  // namespace kestrine::test
