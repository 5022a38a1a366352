#include "platform/foundation/base/Mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace platform {
namespace {

/// Whether another thread can take it now.
bool isFree(Mutex& mutex) {
  bool isFree = false;
  std::thread([&] {
    if (!mutex.try_lock()) return;
    isFree = true;
    mutex.unlock();
  }).join();
  return isFree;
}

TEST(Mutex, IsHeldByOneThread) {
  Mutex mutex;
  EXPECT_TRUE(isFree(mutex));
  mutex.lock();
  EXPECT_FALSE(isFree(mutex));
  mutex.unlock();
  EXPECT_TRUE(isFree(mutex));
}

TEST(Mutex, IsHeldAsLongAsItsLockLives) {
  Mutex mutex;
  {
    MutexLock lock(mutex);
    EXPECT_FALSE(isFree(mutex));
    lock.unlock();
    EXPECT_TRUE(isFree(mutex));
    lock.lock();
    EXPECT_FALSE(isFree(mutex));
  }
  EXPECT_TRUE(isFree(mutex));
  {
    MutexLock lock(mutex);
    lock.unlock();
  }
  EXPECT_TRUE(isFree(mutex));
}

struct Gate {
  Mutex mutex;
  Condition changed;
  int open GUARDED_BY(mutex) = 0;
  int passed GUARDED_BY(mutex) = 0;

  void pass() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    while (open == 0) changed.wait(lock);
    --open;
    ++passed;
    changed.notifyAll();
  }
};

TEST(Condition, EndsTheWaitOfOneAndOfAll) {
  constexpr int kThreads = 8;
  Gate gate;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) threads.emplace_back([&gate] { gate.pass(); });
  {
    MutexLock lock(gate.mutex);
    gate.open = 1;
    gate.changed.notifyOne();
    while (gate.passed < 1) gate.changed.wait(lock);
    EXPECT_EQ(gate.open, 0);
    gate.open = kThreads - 1;
    gate.changed.notifyAll();
    while (gate.passed < kThreads) gate.changed.wait(lock);
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(Condition, SaysThatTheTimeHasCome) {
  using Clock = std::chrono::steady_clock;
  Mutex mutex;
  Condition condition;
  MutexLock lock(mutex);
  EXPECT_FALSE(condition.waitUntil(lock, Clock::now() - std::chrono::seconds(1)));
  const auto time = Clock::now() + std::chrono::milliseconds(20);
  while (condition.waitUntil(lock, time)) {
  }
  EXPECT_GE(Clock::now(), time);
  EXPECT_FALSE(isFree(mutex));
}

TEST(Guarded, IsUsedByOneThreadAtATime) {
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  Guarded<std::vector<int>> numbers;
  std::atomic<int> inside = 0;
  std::atomic<bool> met = false;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < kEach; ++k) {
        numbers.with([&](std::vector<int>& values) {
          if (inside.fetch_add(1) != 0) met = true;
          values.push_back(k);
          inside.fetch_sub(1);
        });
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(met);
  const auto& seen = numbers;
  EXPECT_EQ(seen.with([](const std::vector<int>& values) { return values.size(); }), std::size_t{kThreads * kEach});
}

TEST(Guarded, BeginsWithTheValueGiven) {
  Guarded<int> number(7);
  EXPECT_EQ(number.with([](int& value) { return value++; }), 7);
  EXPECT_EQ(number.with([](int value) { return value; }), 8);
}

}  // namespace
}  // namespace platform
