#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"

namespace kestrine::test {
namespace {

using platform::RunLoop;
using platform::RunLoopSource;

TEST(RunLoop, MayBeRunInsideACallbackAndServesAllItemsThere) {
  const auto loop = RunLoop::current();
  std::vector<int> ran;
  std::shared_ptr<RunLoopSource> source;
  source = RunLoopSource::create([&] { ran.push_back(2), source->invalidate(); });
  loop->add(source);
  loop->perform([&] {
    ran.push_back(1);
    source->signal();
    loop->run();
    ran.push_back(4);
  });
  loop->perform([&] { ran.push_back(3); });
  loop->run();
  std::sort(ran.begin() + 1, ran.begin() + 3);
  EXPECT_EQ(ran, std::vector<int>({1, 2, 3, 4}));
}

TEST(RunLoop, StopsTheInnermostRunOnly) {
  const auto loop = RunLoop::current();
  const auto keeper = RunLoopSource::create([] {});
  loop->add(keeper);
  bool outerWentOn = false;
  loop->perform([&] {
    loop->perform([&] { loop->stop(); });
    loop->run();
    loop->perform([&] { outerWentOn = true, loop->stop(); });
  });
  loop->run();
  EXPECT_TRUE(outerWentOn);
  EXPECT_FALSE(loop->isRunning());
  keeper->invalidate();
}

}  // namespace
}  // namespace kestrine::test
