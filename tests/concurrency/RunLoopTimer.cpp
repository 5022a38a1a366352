#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <thread>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"

namespace kestrine::test {
namespace {

using platform::RunLoop;
using platform::RunLoopTimer;
using Clock = std::chrono::steady_clock;

TEST(RunLoopTimer, RunsOnceNeverEarlyAndEndsTheRun) {
  int calls = 0;
  const auto begun = Clock::now();
  const auto timer = RunLoopTimer::create(0.03, 0, [&] { ++calls; });
  RunLoop::current()->add(timer);
  RunLoop::current()->run();
  EXPECT_GE(Clock::now() - begun, std::chrono::milliseconds(30));
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(timer->isValid());
}

TEST(RunLoopTimer, ThatRunsOnceIsInvalidInItsCallbackAndReleasesItsCaptures) {
  const auto held = std::make_shared<int>(0);
  std::shared_ptr<RunLoopTimer> timer;
  timer = RunLoopTimer::create(0, 0, [&timer, held] { EXPECT_FALSE(timer->isValid()); });
  RunLoop::current()->add(timer);
  RunLoop::current()->run();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(RunLoopTimer, RepeatsUntilInvalidated) {
  int calls = 0;
  const auto begun = Clock::now();
  std::shared_ptr<RunLoopTimer> timer;
  timer = RunLoopTimer::create(0.01, 0.005, [&] {
    EXPECT_TRUE(timer->isValid());
    if (++calls == 5) timer->invalidate();
  });
  RunLoop::current()->add(timer);
  RunLoop::current()->run();
  EXPECT_EQ(calls, 5);
  EXPECT_GE(Clock::now() - begun, std::chrono::milliseconds(30));
}

TEST(RunLoopTimer, SkipsPeriodsThatPassedUnserved) {
  std::shared_ptr<RunLoopTimer> timer;
  int calls = 0;
  timer = RunLoopTimer::create(0, 0.02, [&] {
    // One call was late by five periods; they must not be made up for in a burst.
    if (++calls == 1) std::this_thread::sleep_for(std::chrono::milliseconds(110));
  });
  const auto begun = Clock::now();
  RunLoop::current()->add(timer);
  // A busy machine may let even the second call wait.
  do RunLoop::current()->runFor(0.2);
  while (calls < 2);
  timer->invalidate();
  const auto periods = (Clock::now() - begun) / std::chrono::milliseconds(20);
  EXPECT_LE(calls, periods - 5 + 2);
}

TEST(RunLoopTimer, RunInTheOrderOfTheirDeadlines) {
  std::vector<int> order;
  std::vector<std::shared_ptr<RunLoopTimer>> timers;
  // Each counts from its own making, and a busy machine may let this thread wait between two of them.
  Clock::time_point begun;
  do {
    timers.clear();
    begun = Clock::now();
    for (const int milliseconds : {30, 10, 20, 0}) {
      timers.push_back(RunLoopTimer::create(milliseconds / 1000.0, 0, [&order, milliseconds] { order.push_back(milliseconds); }));
    }
  } while (Clock::now() - begun >= std::chrono::milliseconds(5));
  for (const auto& timer : timers) RunLoop::current()->add(timer);
  RunLoop::current()->run();
  EXPECT_EQ(order, std::vector<int>({0, 10, 20, 30}));
}

TEST(RunLoopTimer, AddedByAnotherThreadShortensTheSleep) {
  const auto loop = RunLoop::current();
  const auto late = RunLoopTimer::create(1000, 0, [] { FAIL() << "after 1000 seconds"; });
  loop->add(late);
  std::thread other([&] { loop->add(RunLoopTimer::create(0.01, 0, [&] { late->invalidate(); })); });
  loop->run();
  other.join();
}

TEST(RunLoopTimer, TakesAnyNumberOfSeconds) {
  int calls = 0;
  for (const double seconds : {-5.0, -std::numeric_limits<double>::infinity(), std::nan("")}) {
    RunLoop::current()->add(RunLoopTimer::create(seconds, 0, [&] { ++calls; }));
  }
  RunLoop::current()->run();
  EXPECT_EQ(calls, 3);
  for (const double seconds : {1e300, std::numeric_limits<double>::infinity()}) {
    const auto never = RunLoopTimer::create(seconds, seconds, [] { FAIL() << "far too early"; });
    RunLoop::current()->add(never);
    RunLoop::current()->runFor(0);
    never->invalidate();
  }
}

TEST(RunLoopTimer, IsServedByAnInnerRunOfItsOwnCallback) {
  const auto loop = RunLoop::current();
  std::shared_ptr<RunLoopTimer> timer;
  int depth = 0;
  int deepest = 0;
  timer = RunLoopTimer::create(0, 0.001, [&] {
    deepest = std::max(deepest, ++depth);
    if (depth < 3) {
      loop->run();
    } else {
      timer->invalidate();
    }
    --depth;
  });
  loop->add(timer);
  loop->run();
  EXPECT_EQ(deepest, 3);
  EXPECT_FALSE(timer->isValid());
}

TEST(RunLoopTimer, OfManyIsStillOneCallEach) {
  constexpr int kTimers = 20000;
  int calls = 0;
  std::vector<std::shared_ptr<RunLoopTimer>> cancelled;
  for (int i = 0; i < kTimers; ++i) {
    const auto timer = RunLoopTimer::create((i * 7919 % kTimers) * 1e-6, 0, [&] { ++calls; });
    RunLoop::current()->add(timer);
    cancelled.push_back(RunLoopTimer::create(500 + i, 0, [] { FAIL() << "cancelled"; }));
    RunLoop::current()->add(cancelled.back());
  }
  for (const auto& timer : cancelled) timer->invalidate();
  RunLoop::current()->run();
  EXPECT_EQ(calls, kTimers);
}

}  // namespace
}  // namespace kestrine::test
