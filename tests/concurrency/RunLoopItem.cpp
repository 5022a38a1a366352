#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Exception.h"
#include "tests/concurrency/LoopThread.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::RunLoop;
using platform::RunLoopItem;
using platform::RunLoopSource;
using platform::RunLoopTimer;

TEST(RunLoopItem, IsOnOneLoopOnlyAndStaysThere) {
  int calls = 0;
  const auto source = RunLoopSource::create([&] { ++calls; });
  const auto mine = RunLoop::current();
  mine->add(source);
  mine->add(source);
  std::thread([&] {
    RunLoop::current()->add(source);
    RunLoop::current()->run();
  }).join();
  source->signal();
  mine->runFor(0);
  EXPECT_EQ(calls, 1);
  source->invalidate();
}

TEST(RunLoopItem, IsHeldByItsLoopWhileScheduledAndForgottenWhenInvalidated) {
  auto source = RunLoopSource::create([] {});
  const std::weak_ptr<RunLoopSource> weak = source;
  RunLoop::current()->add(source);
  source.reset();
  ASSERT_FALSE(weak.expired());
  weak.lock()->invalidate();
  EXPECT_TRUE(weak.expired());
}

TEST(RunLoopItem, IsNotScheduledWhenInvalid) {
  const auto source = RunLoopSource::create([] { FAIL() << "invalid"; });
  EXPECT_TRUE(source->isValid());
  source->invalidate();
  source->invalidate();
  EXPECT_FALSE(source->isValid());
  RunLoop::current()->add(source);
  source->signal();
  RunLoop::current()->run();
}

TEST(RunLoopItem, ReleasesWhatItsCallbackCapturedWhenInvalidated) {
  const auto held = std::make_shared<int>(0);
  const auto source = RunLoopSource::create([held] {});
  const auto timer = RunLoopTimer::create(1000, 0, [held] {});
  RunLoop::current()->add(source);
  RunLoop::current()->add(timer);
  source->invalidate();
  timer->invalidate();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(RunLoopItem, InvalidatedInsideItsCallbackReleasesTheCapturesAfterIt) {
  const auto held = std::make_shared<int>(0);
  std::shared_ptr<RunLoopSource> source;
  source = RunLoopSource::create([held, &source] {
    source->invalidate();
    EXPECT_FALSE(source->isValid());
    EXPECT_EQ(held.use_count(), 2);
  });
  source->signal();
  RunLoop::current()->add(source);
  RunLoop::current()->run();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(RunLoopItem, InvalidatedByWhatItsOwnCapturesReleaseDoesNotWaitForItself) {
  struct Owner {
    std::shared_ptr<RunLoopSource> source;
    ~Owner() { source->invalidate(); }
  };
  auto owner = std::make_shared<Owner>();
  const auto source = RunLoopSource::create([owner] {});
  owner->source = source;
  owner.reset();
  RunLoop::current()->add(source);
  source->invalidate();
  EXPECT_FALSE(source->isValid());
}

TEST(RunLoopItem, InvalidateWaitsForARunningCallbackAndItsCaptures) {
  std::promise<void> begun;
  std::promise<void> release;
  std::atomic<bool> ended = false;
  const auto held = std::make_shared<int>(0);
  const auto source = RunLoopSource::create([&, held] {
    begun.set_value();
    release.get_future().wait();
    ended = true;
  });
  source->signal();
  LoopThread loop([&](RunLoop& mine) { mine.add(source); });
  begun.get_future().wait();
  std::atomic<int> waited = 0;
  std::vector<std::thread> waiters;
  waiters.reserve(3);
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] {
      source->invalidate();
      EXPECT_TRUE(ended);
      EXPECT_EQ(held.use_count(), 1);
      ++waited;
    });
  }
  EXPECT_TRUE(eventually([&] { return !source->isValid(); }));
  EXPECT_EQ(waited, 0);
  release.set_value();
  for (auto& waiter : waiters) waiter.join();
  loop.join();
}

TEST(RunLoopItem, InvalidateEndsARunThatHasNothingLeft) {
  const auto first = RunLoopSource::create([] {});
  const auto second = RunLoopTimer::create(1000, 0, [] {});
  LoopThread loop([&](RunLoop& mine) {
    mine.add(first);
    mine.add(second);
  });
  EXPECT_TRUE(eventually([&] { return loop->isRunning(); }));
  first->invalidate();
  EXPECT_TRUE(loop->isRunning());
  second->invalidate();
  loop.join();
  EXPECT_FALSE(loop->isRunning());
}

TEST(RunLoopItem, InvalidateEndsARunThatIsAboutToSleep) {
  // Another moment each time: the last item goes before the loop looks for one, while it looks, between that and its sleep, in its sleep.
  // So many notice a loop that sleeps with nothing left ten times out of ten, two fifths of them eight times.
  const int rounds = longOrShort(10000, 2000);
  for (int round = 0; round < rounds; ++round) {
    const auto source = RunLoopSource::create(nullptr);
    std::shared_ptr<RunLoop> loop;
    std::atomic<bool> added = false;
    auto ended = std::async(std::launch::async, [&] {
      loop = RunLoop::current();
      loop->add(source);
      added = true;
      loop->run();
    });
    while (!added) std::this_thread::yield();
    for (int spins = round * 7 % 200; spins > 0 && added; --spins) continue;
    source->invalidate();
    const auto status = ended.wait_for(kPatience);
    loop->perform([] {});
    ASSERT_EQ(status, std::future_status::ready) << "sleeps with nothing left, round " << round;
  }
}

TEST(RunLoopItem, InvalidatedByAnEarlierCallbackOfTheSameTurnIsNotCalled) {
  std::vector<std::shared_ptr<RunLoopSource>> sources(2);
  int calls = 0;
  for (std::size_t i = 0; i < 2; ++i) {
    sources[i] = RunLoopSource::create([&, i] {
      ++calls;
      sources[1 - i]->invalidate();
      sources[i]->invalidate();
    });
    RunLoop::current()->add(sources[i]);
    sources[i]->signal();
  }
  RunLoop::current()->run();
  EXPECT_EQ(calls, 1);
}

TEST(RunLoopItem, HoldsNoLockWhileACallbackRuns) {
  // The callback invalidates one item of another loop and adds one, while that loop's callback does the same to this loop.
  std::mutex callers;
  std::atomic<int> meetings = 0;
  std::shared_ptr<RunLoop> loops[2];
  std::promise<void> ready[2];
  std::vector<std::thread> threads;
  threads.reserve(2);
  const int rounds = longOrShort(2000, 200);
  for (int side = 0; side < 2; ++side) {
    threads.emplace_back([&, side] {
      loops[side] = RunLoop::current();
      const auto keeper = RunLoopSource::create([] {});
      loops[side]->add(keeper);
      ready[side].set_value();
      ready[1 - side].get_future().wait();
      int left = rounds;
      std::shared_ptr<RunLoopSource> source;
      source = RunLoopSource::create([&] {
        const std::lock_guard lock(callers);
        const auto there = RunLoopSource::create([] {});
        loops[1 - side]->add(there);
        there->signal();
        there->invalidate();
        ++meetings;
        if (--left == 0) {
          source->invalidate();
          keeper->invalidate();
        } else {
          source->signal();
        }
      });
      source->signal();
      loops[side]->add(source);
      loops[side]->run();
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(meetings, 2 * rounds);
}

TEST(RunLoopItem, CanBeInvalidatedWhileACallbackWaitsForALockOfTheInvalidatingThread) {
  std::mutex lock;
  std::promise<void> waiting;
  const auto blocked = RunLoopSource::create([&] {
    waiting.set_value();
    const std::lock_guard held(lock);
  });
  const auto other = RunLoopSource::create([] {});
  blocked->signal();
  std::unique_lock held(lock);
  LoopThread loop([&](RunLoop& mine) {
    mine.add(blocked);
    mine.add(other);
  });
  waiting.get_future().wait();
  other->invalidate();
  loop->perform([] {});
  loop->add(RunLoopTimer::create(0, 0, [] {}));
  held.unlock();
  blocked->invalidate();
  loop.join();
}

TEST(RunLoopItem, WhoseCallbackThrewIsStillScheduled) {
  int calls = 0;
  std::shared_ptr<RunLoopSource> source;
  source = RunLoopSource::create([&] {
    if (++calls == 1) throw std::runtime_error("once");
    source->invalidate();
  });
  RunLoop::current()->add(source);
  source->signal();
  EXPECT_THROW(RunLoop::current()->run(), std::runtime_error);
  EXPECT_TRUE(source->isValid());
  source->signal();
  RunLoop::current()->run();
  EXPECT_EQ(calls, 2);
}

TEST(RunLoopItem, OfAForeignKindIsRefused) {
  class Foreign : public RunLoopItem {
    void invalidate() override {}
    [[nodiscard]] bool isValid() const override { return true; }
  };
  EXPECT_THROW(RunLoop::current()->add(std::make_shared<Foreign>()), platform::Exception);
}

TEST(RunLoopItem, SurvivesAStormOfAddSignalAndInvalidateFromManyThreads) {
  const auto keeper = RunLoopSource::create([] {});
  std::atomic<int> calls = 0;
  const int rounds = longOrShort(5000, 500);
  LoopThread loop([&](RunLoop& mine) { mine.add(keeper); });
  std::vector<std::thread> threads;
  threads.reserve(3);
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < rounds; ++i) {
        auto alive = std::make_shared<std::atomic<bool>>(true);
        const auto source = RunLoopSource::create([&, alive] {
          EXPECT_TRUE(*alive);
          ++calls;
        });
        const auto timer = RunLoopTimer::create(0, 1e-6, [&, alive] { EXPECT_TRUE(*alive); });
        loop->add(source);
        loop->add(timer);
        source->signal();
        if (i % 2 == 0) std::this_thread::yield();
        source->invalidate();
        timer->invalidate();
        *alive = false;
        EXPECT_EQ(alive.use_count(), 1);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  keeper->invalidate();
  loop.join();
  EXPECT_LE(calls, 3 * rounds);
}

}  // namespace
}  // namespace kestrine::test
