#include "platform/foundation/base/AllSignalsBlocked.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>
#include <optional>
#include <thread>

namespace platform {
namespace {

bool isBlocked(int signal) {
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  return sigismember(&blocked, signal) == 1;
}

TEST(AllSignalsBlocked, BlocksThemUntilItsEndAndLeavesThoseThatWereBlocked) {
  std::thread([] {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &one, nullptr);
    {
      const AllSignalsBlocked blocked;
      for (const int signal : {SIGTERM, SIGINT, SIGPIPE, SIGCHLD, SIGUSR1, SIGUSR2}) EXPECT_TRUE(isBlocked(signal)) << signal;
    }
    for (const int signal : {SIGTERM, SIGINT, SIGPIPE, SIGCHLD, SIGUSR1}) EXPECT_FALSE(isBlocked(signal)) << signal;
    EXPECT_TRUE(isBlocked(SIGUSR2));
  }).join();
}

TEST(AllSignalsBlocked, IsWhatAThreadMadeMeanwhileBeginsWith) {
  std::optional<AllSignalsBlocked> blocked(std::in_place);
  std::thread thread([] {
    for (const int signal : {SIGTERM, SIGINT, SIGPIPE, SIGCHLD, SIGUSR1}) EXPECT_TRUE(isBlocked(signal)) << signal;
  });
  blocked.reset();
  thread.join();
}

}  // namespace
}  // namespace platform
