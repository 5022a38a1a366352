#include "platform/concurrency/loop/RunLoop.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::RunLoop;
using platform::RunLoopSource;
using platform::RunLoopTimer;

TEST(RunLoop, IsOnePerThreadForTheLifeOfTheThread) {
  const auto mine = RunLoop::current();
  EXPECT_EQ(mine, RunLoop::current());
  std::shared_ptr<RunLoop> first;
  std::shared_ptr<RunLoop> second;
  std::thread([&] { first = RunLoop::current(), second = RunLoop::current(); }).join();
  EXPECT_EQ(first, second);
  EXPECT_NE(first, mine);
}

TEST(RunLoop, OutlivesItsThreadWhileSomeoneHoldsIt) {
  std::shared_ptr<RunLoop> loop;
  std::thread([&] { loop = RunLoop::current(); }).join();
  const auto held = std::make_shared<int>(0);
  loop->perform([held] { FAIL() << "nobody can run this loop"; });
  const auto timer = RunLoopTimer::create(0, 0, [held] { FAIL() << "nobody can run this loop"; });
  loop->add(timer);
  timer->invalidate();
  loop->stop();
  EXPECT_FALSE(loop->isRunning());
  EXPECT_FALSE(loop->isCurrent());
  EXPECT_EQ(held.use_count(), 1);
}

TEST(RunLoop, DestroysTheBlocksThatNobodyRan) {
  const auto held = std::make_shared<int>(0);
  std::thread([&] {
    RunLoop::current()->perform([held] { FAIL() << "the loop was never run"; });
    EXPECT_EQ(held.use_count(), 2);
  }).join();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(RunLoop, OfTheMainThreadIsKnownEverywhere) {
  EXPECT_EQ(RunLoop::main(), RunLoop::current());
  EXPECT_TRUE(RunLoop::main()->isCurrent());
  std::thread([] {
    EXPECT_NE(RunLoop::main(), RunLoop::current());
    EXPECT_FALSE(RunLoop::main()->isCurrent());
    EXPECT_TRUE(RunLoop::current()->isCurrent());
  }).join();
}

TEST(RunLoop, MayOnlyBeRunByItsOwnThread) {
  std::thread([] { EXPECT_ANY_THROW(RunLoop::main()->run()); }).join();
}

TEST(RunLoop, ReturnsAtOnceWhenNothingIsScheduled) {
  RunLoop::current()->run();
  EXPECT_FALSE(RunLoop::current()->isRunning());
}

TEST(RunLoop, IsKeptRunningByAnItemScheduledBefore) {
  const auto loop = RunLoop::current();
  int calls = 0;
  std::shared_ptr<RunLoopSource> source;
  source = RunLoopSource::create([&] {
    ++calls;
    EXPECT_TRUE(loop->isRunning());
    source->invalidate();
  });
  loop->add(source);
  std::thread signaller([&] { source->signal(); });
  loop->run();
  signaller.join();
  EXPECT_EQ(calls, 1);
}

TEST(RunLoop, ReturnsAfterStop) {
  const auto loop = RunLoop::current();
  const auto source = RunLoopSource::create([] {});
  loop->add(source);
  loop->perform([&] { loop->stop(); });
  loop->run();
  EXPECT_TRUE(source->isValid());
  std::thread stopper([&] {
    EXPECT_TRUE(eventually([&] { return loop->isRunning(); }));
    loop->stop();
  });
  loop->run();
  stopper.join();
  source->invalidate();
}

TEST(RunLoop, IgnoresAStopFromBeforeItRan) {
  const auto loop = RunLoop::current();
  loop->stop();
  bool ran = false;
  loop->perform([&] { ran = true; });
  loop->run();
  EXPECT_TRUE(ran);
}

TEST(RunLoop, ReturnsAfterTheCallbackThatStopped) {
  const auto loop = RunLoop::current();
  std::vector<int> ran;
  loop->perform([&] { ran.push_back(1), loop->stop(); });
  loop->perform([&] { ran.push_back(2); });
  loop->run();
  EXPECT_EQ(ran, std::vector<int>({1}));
  loop->run();
  EXPECT_EQ(ran, std::vector<int>({1, 2}));
}

struct Effort {
  long sleeps = 0;
  std::chrono::microseconds work{};
};
Effort effortSoFar() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  const auto time = [](const timeval& value) { return std::chrono::seconds(value.tv_sec) + std::chrono::microseconds(value.tv_usec); };
  return {usage.ru_nvcsw, time(usage.ru_utime) + time(usage.ru_stime)};
}

TEST(RunLoop, SleepsWithoutWakingWhileNothingHappens) {
  const auto loop = RunLoop::current();
  const auto source = RunLoopSource::create([] {});
  const auto timer = RunLoopTimer::create(1000, 0, [] {});
  loop->add(source);
  loop->add(timer);
  const auto before = effortSoFar();
  EXPECT_FALSE(loop->runFor(0.5));
  const auto after = effortSoFar();
  // One sleep to the end of the time. A loop that looked again and again would have slept many times, or worked all the time.
  EXPECT_LE(after.sleeps - before.sleeps, 3);
  EXPECT_LT(after.work - before.work, std::chrono::milliseconds(250));
  source->invalidate();
  timer->invalidate();
}

TEST(RunLoop, WaitsTheWholeTimeEvenWhenNothingIsScheduled) {
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_FALSE(RunLoop::current()->runFor(0.05));
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(50));
}

TEST(RunLoop, TellsThatATimedRunWasStopped) {
  const auto loop = RunLoop::current();
  loop->perform([&] { loop->stop(); });
  EXPECT_TRUE(loop->runFor(60));
}

TEST(RunLoop, ServesWhatIsDueInATimedRunOfNoTime) {
  int calls = 0;
  RunLoop::current()->perform([&] { ++calls; });
  EXPECT_FALSE(RunLoop::current()->runFor(0));
  EXPECT_EQ(calls, 1);
}

TEST(RunLoop, NeverCallsInsideAddSignalOrPerform) {
  const auto loop = RunLoop::current();
  bool inside = true;
  int calls = 0;
  const auto outside = [&] {
    EXPECT_FALSE(inside);
    ++calls;
  };
  const auto source = RunLoopSource::create(outside);
  source->signal();
  loop->add(source);
  source->signal();
  loop->add(RunLoopTimer::create(0, 0, outside));
  loop->perform([&] {
    outside();
    inside = true;
    source->signal();
    loop->perform([&] {
      outside();
      source->invalidate();
    });
    inside = false;
  });
  inside = false;
  loop->run();
  EXPECT_GE(calls, 4);
}

TEST(RunLoop, RunsCallbacksOnItsThreadOneAtATime) {
  const auto loop = RunLoop::current();
  const auto thread = std::this_thread::get_id();
  int depth = 0;
  int calls = 0;
  constexpr int kEach = 500;
  const auto callback = [&] {
    EXPECT_EQ(++depth, 1);
    EXPECT_EQ(std::this_thread::get_id(), thread);
    --depth;
    if (++calls == 4 * kEach) loop->stop();
  };
  const auto keeper = RunLoopSource::create([] {});
  loop->add(keeper);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int each = 0; each < kEach; ++each) loop->perform(callback);
    });
  }
  loop->run();
  for (auto& each : threads) each.join();
  EXPECT_EQ(calls, 4 * kEach);
  keeper->invalidate();
}

TEST(RunLoop, RunsBlocksInTheOrderGivenEachOnce) {
  std::vector<int> ran;
  for (int i = 0; i < 1000; ++i) RunLoop::current()->perform([&, i] { ran.push_back(i); });
  RunLoop::current()->run();
  ASSERT_EQ(ran.size(), 1000U);
  EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

TEST(RunLoop, IsKeptRunningByBlocksThatBlocksAdd) {
  const auto loop = RunLoop::current();
  int left = 100;
  std::function<void()> again = [&] {
    if (--left > 0) loop->perform(again);
  };
  loop->perform(again);
  loop->run();
  EXPECT_EQ(left, 0);
}

TEST(RunLoop, ShowsABlockWhatThePerformingThreadWrote) {
  const auto loop = RunLoop::current();
  const auto keeper = RunLoopSource::create([] {});
  loop->add(keeper);
  int written = 0;
  std::thread writer([&] {
    written = 7;
    loop->perform([&] {
      EXPECT_EQ(written, 7);
      keeper->invalidate();
    });
  });
  loop->run();
  writer.join();
}

TEST(RunLoop, MayBeRunAgainAfterItReturned) {
  int calls = 0;
  for (int i = 0; i < 3; ++i) {
    RunLoop::current()->perform([&] { ++calls; });
    RunLoop::current()->run();
  }
  EXPECT_EQ(calls, 3);
}

TEST(RunLoop, LetsAnExceptionOutAndCanBeRunAgain) {
  const auto loop = RunLoop::current();
  int calls = 0;
  loop->perform([] { throw std::runtime_error("out"); });
  loop->perform([&] { ++calls; });
  EXPECT_THROW(loop->run(), std::runtime_error);
  EXPECT_FALSE(loop->isRunning());
  loop->run();
  EXPECT_EQ(calls, 1);
}

TEST(RunLoop, DropsPerformedBlocksOnRequest) {
  const auto loop = RunLoop::current();
  const auto held = std::make_shared<int>(0);
  loop->perform([held] { FAIL() << "dropped before the run"; });
  loop->discardPerformed();
  EXPECT_EQ(held.use_count(), 1);
  bool ran = false;
  loop->perform([&] { ran = true; });
  loop->run();
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace kestrine::test
