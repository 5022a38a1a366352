#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/concurrency/loop/RunLoop.h"
#include "tests/concurrency/LoopThread.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::RunLoop;
using platform::RunLoopSource;

TEST(RunLoopSource, GivesOneCallForManySignals) {
  int calls = 0;
  const auto source = RunLoopSource::create([&] { ++calls; });
  RunLoop::current()->add(source);
  for (int i = 0; i < 10; ++i) source->signal();
  RunLoop::current()->runFor(0);
  EXPECT_EQ(calls, 1);
  RunLoop::current()->runFor(0);
  EXPECT_EQ(calls, 1);
  source->invalidate();
}

TEST(RunLoopSource, IsCalledAgainForASignalFromWithinItsCallback) {
  int calls = 0;
  std::shared_ptr<RunLoopSource> source;
  source = RunLoopSource::create([&] {
    if (++calls < 3) {
      source->signal();
    } else {
      source->invalidate();
    }
  });
  source->signal();
  RunLoop::current()->add(source);
  RunLoop::current()->run();
  EXPECT_EQ(calls, 3);
}

TEST(RunLoopSource, LosesNoSignalOfAnotherThread) {
  const int rounds = longOrShort(20000, 2000);
  std::atomic<int> seen = 0;
  std::atomic<int> said = 0;
  const auto source = RunLoopSource::create([&] { seen = said.load(); });
  LoopThread loop([&](RunLoop& mine) { mine.add(source); });
  for (int i = 1; i <= rounds; ++i) {
    said = i;
    source->signal();
    while (seen < i) std::this_thread::yield();
  }
  source->invalidate();
}

}  // namespace
}  // namespace kestrine::test
