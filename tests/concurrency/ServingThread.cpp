#include "platform/concurrency/thread/ServingThread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <csignal>
#include <future>
#include <stdexcept>
#include <string>

namespace platform {
namespace {

/// Never destroyed, as it demands.
const ServingThread& madeThread() {
  static const auto& made = *new ServingThread("serving", "contained");
  return made;
}

/// What `ask` answers on the thread.
template <class Ask>
auto onThread(const ServingThread& thread, Ask ask) {
  std::promise<decltype(ask())> answer;
  thread.perform([&] { answer.set_value(ask()); });
  return answer.get_future().get();
}

TEST(ServingThread, RunsBlocksInOrderOnItsOneNamedThread) {
  const ServingThread& thread = madeThread();
  std::string order;
  for (const char c : {'a', 'b', 'c'}) thread.perform([&order, c] { order += c; });
  EXPECT_TRUE(onThread(thread, [&] { return thread.loop().isCurrent(); }));
  EXPECT_FALSE(thread.loop().isCurrent());
  EXPECT_EQ(order, "abc");
  EXPECT_EQ(onThread(thread,
                     [] {
                       std::array<char, 16> name{};
                       pthread_getname_np(pthread_self(), name.data(), name.size());
                       return std::string(name.data());
                     }),
            "serving");
}

TEST(ServingThread, LeavesSignalsToOthers) {
  EXPECT_TRUE(onThread(madeThread(), [] {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, SIGTERM) == 1 && sigismember(&blocked, SIGPIPE) == 1;
  }));
  sigset_t own;
  pthread_sigmask(SIG_SETMASK, nullptr, &own);
  EXPECT_EQ(sigismember(&own, SIGTERM), 0) << "the maker's own mask has changed";
}

TEST(ServingThread, OutlivesAFailure) {
  const ServingThread& thread = madeThread();
  thread.perform([] { throw std::runtime_error("in a block"); });
  const auto source = RunLoopSource::create([] { throw std::runtime_error("in a callback"); });
  thread.loop().add(source);
  source->signal();
  EXPECT_EQ(onThread(thread, [] { return 7; }), 7);
  source->invalidate();
}

TEST(ServingThread, DoesNothingMoreOnceParked) {
  static const auto& thread = *new ServingThread("parked", "contained");
  bool ran = false;
  thread.perform([&ran] { ran = true; });
  thread.park();
  EXPECT_TRUE(ran);
  const auto late = std::make_shared<std::promise<void>>();
  thread.perform([late] { late->set_value(); });
  EXPECT_EQ(late->get_future().wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
}

}  // namespace
}  // namespace platform
