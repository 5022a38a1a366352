#include "platform/concurrency/loop/Poller.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/resource.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace kestrine::test {
namespace {

using namespace std::chrono_literals;
using platform::FileHandle;
using platform::Poller;

TEST(Poller, TellsWhatIsReadyByItsNumber) {
  const Poller poller;
  const FileHandle full(eventfd(1, EFD_CLOEXEC));
  const FileHandle empty(eventfd(0, EFD_CLOEXEC));
  EXPECT_EQ(poller.watch(7, full.fileDescriptor(), EPOLLIN), 0);
  EXPECT_EQ(poller.watch(8, empty.fileDescriptor(), EPOLLIN), 0);
  std::array<epoll_event, 4> room{};
  auto ready = poller.wait(room, std::nullopt);
  ASSERT_EQ(ready.size(), 1U);
  EXPECT_EQ(std::uint64_t{ready[0].data.u64}, 7U);
  EXPECT_EQ(ready[0].events, static_cast<unsigned>(EPOLLIN));

  EXPECT_EQ(poller.rewatch(9, empty.fileDescriptor(), EPOLLOUT), 0);
  poller.unwatch(full.fileDescriptor());
  ready = poller.wait(room, 0ns);
  ASSERT_EQ(ready.size(), 1U);
  EXPECT_EQ(std::uint64_t{ready[0].data.u64}, 9U);
  EXPECT_EQ(ready[0].events, static_cast<unsigned>(EPOLLOUT));
}

TEST(Poller, TellsNoMoreThanThereIsRoomForAndTheRestNextTime) {
  const Poller poller;
  const FileHandle first(eventfd(1, EFD_CLOEXEC));
  const FileHandle second(eventfd(1, EFD_CLOEXEC));
  EXPECT_EQ(poller.watch(1, first.fileDescriptor(), EPOLLIN), 0);
  EXPECT_EQ(poller.watch(2, second.fileDescriptor(), EPOLLIN), 0);
  std::array<epoll_event, 1> room{};
  std::uint64_t told = 0;
  for (int i = 0; i < 2; ++i) {
    const auto ready = poller.wait(room, 0ns);
    ASSERT_EQ(ready.size(), 1U);
    told += ready[0].data.u64;
  }
  EXPECT_EQ(told, 3U);
}

TEST(Poller, SleepsAsLongAsItMayAndNotShorter) {
  const Poller poller;
  std::array<epoll_event, 1> room{};
  for (const auto limit : {std::chrono::nanoseconds(20ms), std::chrono::nanoseconds(1ns), 0ns, -5ns}) {
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_TRUE(poller.wait(room, limit).empty());
    EXPECT_GE(std::chrono::steady_clock::now() - begun, limit);
  }
}

TEST(Poller, SaysWhyItCannotWatch) {
  const Poller poller;
  const FileHandle event(eventfd(0, EFD_CLOEXEC));
  EXPECT_EQ(poller.watch(1, -1, EPOLLIN), EBADF);
  EXPECT_EQ(poller.rewatch(1, event.fileDescriptor(), EPOLLIN), ENOENT);
  EXPECT_EQ(poller.watch(1, event.fileDescriptor(), EPOLLIN), 0);
  EXPECT_EQ(poller.watch(2, event.fileDescriptor(), EPOLLIN), EEXIST);
}

TEST(Poller, CannotBeMadeWithoutDescriptors) {
  rlimit former{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
  const rlimit none{.rlim_cur = 0, .rlim_max = former.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_THROW(Poller(), std::system_error);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &former), 0);
}

}  // namespace
}  // namespace kestrine::test
