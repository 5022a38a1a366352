#include "platform/concurrency/loop/EndingSignals.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "platform/concurrency/loop/RunLoop.h"

namespace kestrine::test {
namespace {

using platform::EndingSignals;
using platform::RunLoop;

/// Blocks the signals in this thread, and unblocks them when none is pending any more.
class EndingSignalsTest : public testing::Test {
 public:
  EndingSignalsTest() {
    EndingSignals::block();
    EXPECT_EQ(signals_.open(), 0);
  }
  ~EndingSignalsTest() override {
    signals_.cancel();
    sigset_t pending;
    sigpending(&pending);
    EXPECT_FALSE(sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1);
    EndingSignals::unblock();
  }

 protected:
  EndingSignals signals_;
  int told_ = 0;
};

TEST_F(EndingSignalsTest, AreToldOnceForAllThatCameBeforeTheLoopLooked) {
  signals_.schedule(*RunLoop::current(), [this] {
    ++told_;
    RunLoop::current()->stop();
  });
  // To this thread, since others of the process may have them unblocked.
  pthread_kill(pthread_self(), SIGTERM);
  pthread_kill(pthread_self(), SIGINT);
  RunLoop::current()->run();
  EXPECT_EQ(told_, 1);
  pthread_kill(pthread_self(), SIGINT);
  RunLoop::current()->run();
  EXPECT_EQ(told_, 2);
}

TEST_F(EndingSignalsTest, KeepTheLoopRunningUntilTheyAreCancelled) {
  signals_.schedule(*RunLoop::current(), [this] { ++told_; });
  bool cancelled = false;
  RunLoop::current()->perform([&] {
    cancelled = true;
    signals_.cancel();
  });
  RunLoop::current()->run();  // returns, since nothing is left to wait for
  EXPECT_TRUE(cancelled);
  EXPECT_EQ(told_, 0);
}

}  // namespace
}  // namespace kestrine::test
