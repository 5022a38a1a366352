#include "platform/concurrency/thread/LoopThread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <array>
#include <atomic>
#include <csignal>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "platform/foundation/log/Log.h"
#include "tests/support/Eventually.h"
#include "tests/support/KernelFilter.h"

namespace platform {
namespace {

/// What `ask` answers on the thread.
template <class Ask>
auto answer(const LoopThread& thread, Ask ask) {
  std::promise<decltype(ask())> told;
  thread.perform([&] { told.set_value(ask()); });
  return told.get_future().get();
}

std::string nameOfThisThread() {
  std::array<char, 16> name{};
  pthread_getname_np(pthread_self(), name.data(), name.size());
  return name.data();
}

/// Of the calling thread: whether the signals are blocked that a process mostly gets.
bool areSignalsBlocked() {
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  return sigismember(&blocked, SIGTERM) == 1 && sigismember(&blocked, SIGPIPE) == 1 && sigismember(&blocked, SIGCHLD) == 1;
}

TEST(LoopThread, BearsItsNameAsFarAsTheSystemTakesIt) {
  EXPECT_EQ(answer(LoopThread("short", "failure"), nameOfThisThread), "short");
  EXPECT_EQ(answer(LoopThread("a name that is too long", "failure"), nameOfThisThread), "a name that is ");
}

TEST(LoopThread, LeavesSignalsToOthers) {
  EXPECT_TRUE(answer(LoopThread("signals", "failure"), areSignalsBlocked));
  EXPECT_FALSE(areSignalsBlocked()) << "the maker's own mask has changed";
}

TEST(LoopThread, ServesItsLoopAndNoOther) {
  const LoopThread thread("serving", "failure");
  EXPECT_FALSE(thread.loop().isCurrent());
  EXPECT_TRUE(answer(thread, [&thread] { return thread.loop().isCurrent() && RunLoop::current() == thread.sharedLoop(); }));
  std::promise<void> called;
  thread.loop().add(RunLoopTimer::create(0, 0, [&called] { called.set_value(); }));
  called.get_future().wait();
}

TEST(LoopThread, SaysWhatLeavesABlockOrACallbackAndGoesOn) {
  testing::internal::CaptureStderr();
  {
    const LoopThread thread("contained", "it happened on the thread");
    std::vector<std::shared_ptr<RunLoopSource>> sources;
    const auto throwing = [&](auto thrown) {
      thread.perform([thrown] { throw thrown; });
      sources.push_back(RunLoopSource::create([thrown] { throw thrown; }));
      thread.loop().add(sources.back());
      sources.back()->signal();
    };
    throwing(std::runtime_error("a plain one"));
    throwing(7);
    thread.perform(nullptr);
    EXPECT_EQ(answer(thread, [] { return 7; }), 7);
    std::promise<void> called;
    sources.push_back(RunLoopSource::create([&called] { called.set_value(); }));
    thread.loop().add(sources.back());
    sources.back()->signal();
    called.get_future().wait();
  }
  flushLog();
  const auto log = testing::internal::GetCapturedStderr();
  for (const std::string text : {"it happened on the thread: a plain one\n", "it happened on the thread: of an unknown type\n"}) {
    const auto first = log.find(text);
    ASSERT_NE(first, std::string::npos) << log;
    EXPECT_NE(log.find(text, first + 1), std::string::npos) << "from a callback; " << log;
  }
}

TEST(LoopThread, FinishesWhatItWasGivenBeforeItsDestructorReturns) {
  int ran = 0;
  const auto held = std::make_shared<int>(0);
  {
    const LoopThread thread("ending", "failure");
    thread.loop().add(RunLoopTimer::create(1000, 0, [held] {}));
    for (int i = 0; i < 100; ++i) thread.perform([&ran, held] { ++ran; });
  }
  EXPECT_EQ(ran, 100);
  EXPECT_EQ(held.use_count(), 1);
}

TEST(LoopThread, IsStoppedByNobodyElse) {
  const LoopThread thread("not stopped", "failure");
  thread.perform([&thread] { thread.loop().stop(); });
  EXPECT_EQ(answer(thread, [] { return 7; }), 7);
}

TEST(LoopThread, EndsInsideInnerRunsToo) {
  std::atomic<int> depth = 0;
  {
    const LoopThread thread("nested", "failure");
    thread.perform([&] {
      ++depth;
      thread.loop().perform([&] {
        ++depth;
        thread.loop().run();
      });
      thread.loop().run();
    });
    EXPECT_TRUE(kestrine::test::eventually([&] { return depth == 2; }));
  }
  EXPECT_EQ(depth, 2);
}

TEST(LoopThread, ItsLoopLetsGoOfWhatComesLater) {
  std::shared_ptr<RunLoop> loop;
  {
    const LoopThread thread("ended", "failure");
    loop = thread.sharedLoop();
  }
  const auto held = std::make_shared<int>(0);
  loop->perform([held] {});
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_FALSE(loop->isRunning());
}

TEST(LoopThread, DestroyedByItsOwnCallbackCallsNothingMoreAndEndsAfterIt) {
  const auto held = std::make_shared<int>(0);
  const auto source = RunLoopSource::create([] { FAIL() << "called after the owner has gone"; });
  auto thread = std::make_unique<LoopThread>("own", "failure");
  std::promise<void> destroyed;
  // One after another in one block, so that the thread cannot begin with one of them before.
  thread->perform([&, held] {
    thread->perform([held] { FAIL() << "run after the owner has gone"; });
    thread->loop().add(source);
    source->signal();
    thread.reset();
    destroyed.set_value();
  });
  destroyed.get_future().wait();
  EXPECT_TRUE(kestrine::test::eventually([&] { return held.use_count() == 1; })) << "the thread has not ended";
  EXPECT_TRUE(kestrine::test::eventually([&] { return source.use_count() == 1; })) << "its loop has not let go";
}

TEST(LoopThread, DestroyedByAnInnerRunOfItsOwnEndsToo) {
  const auto held = std::make_shared<int>(0);
  auto thread = std::make_unique<LoopThread>("own nested", "failure");
  std::promise<void> returned;
  thread->perform([&, held] {
    const auto loop = thread->sharedLoop();
    loop->perform([&thread] { thread.reset(); });
    loop->run();
    loop->add(RunLoopTimer::create(0, 0, [held] { FAIL() << "called after the owner has gone"; }));
    returned.set_value();
  });
  returned.get_future().wait();
  EXPECT_TRUE(kestrine::test::eventually([&] { return held.use_count() == 1; })) << "the thread has not ended";
}

TEST(LoopThread, TellsItsMakerThatThereAreNoDescriptors) {
  rlimit former{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
  const rlimit none{.rlim_cur = 0, .rlim_max = former.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  int code = 0;
  try {
    const LoopThread thread("descriptors", "failure");
  } catch (const std::system_error& error) {
    code = error.code().value();
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &former), 0);
  EXPECT_EQ(code, EMFILE);
  EXPECT_FALSE(areSignalsBlocked());
  EXPECT_EQ(answer(LoopThread("descriptors", "failure"), [] { return 7; }), 7) << "a later one can be made";
}

TEST(LoopThread, TellsItsMakerThatThereAreNoThreads) {
  int code = 0;
  bool blocked = true;
  const bool tried = kestrine::test::withoutThreads([&] {
    try {
      const LoopThread thread("threads", "failure");
    } catch (const std::system_error& error) {
      code = error.code().value();
    }
    blocked = areSignalsBlocked();
  });
  if (!tried) GTEST_SKIP() << "left out: a thread that cannot be made, because system calls cannot be filtered here";
  EXPECT_EQ(code, EAGAIN);
  EXPECT_FALSE(blocked);
}

}  // namespace
}  // namespace platform
