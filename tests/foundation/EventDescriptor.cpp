#include "platform/foundation/base/EventDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <thread>

#include "tests/support/NoDescriptors.h"

namespace platform {
namespace {

bool isReadable(const EventDescriptor& event) {
  pollfd entry{.fd = event.descriptor(), .events = POLLIN, .revents = 0};
  return poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0;
}

TEST(EventDescriptor, IsReadableFromARingToAClear) {
  const EventDescriptor event;
  EXPECT_TRUE(event.isOpen());
  EXPECT_FALSE(isReadable(event));
  for (int round = 0; round < 3; ++round) {
    event.ring();
    event.ring();
    EXPECT_TRUE(isReadable(event));
    EXPECT_TRUE(isReadable(event));
    event.clear();
    EXPECT_FALSE(isReadable(event));
  }
  event.clear();  // and does not wait for a ring
  EXPECT_FALSE(isReadable(event));
}

TEST(EventDescriptor, WakesAnotherThread) {
  const EventDescriptor event;
  int told = 0;
  std::thread sleeper([&] {
    pollfd entry{.fd = event.descriptor(), .events = POLLIN, .revents = 0};
    told = poll(&entry, 1, 30'000);
  });
  event.ring();
  sleeper.join();
  EXPECT_EQ(told, 1);
}

TEST(EventDescriptor, IsClosedOnExecAndNeverBlocks) {
  const EventDescriptor event;
  EXPECT_NE(fcntl(event.descriptor(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(event.descriptor(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(EventDescriptor, SaysWhyThereIsNone) {
  std::error_code code;
  std::string text;
  {
    const kestrine::test::NoDescriptors none;
    try {
      const EventDescriptor event;
    } catch (const std::system_error& error) {
      code = error.code();
      text = error.what();
    }
  }
  EXPECT_EQ(code, std::errc::too_many_files_open);
  EXPECT_NE(text.find("eventfd"), std::string::npos) << text;
  EXPECT_NE(text.find("Too many open files"), std::string::npos) << text;
}

TEST(EventDescriptor, CanBeDoneWithout) {
  bool isOpen = true;
  int descriptor = 0;
  int error = 0;
  {
    const kestrine::test::NoDescriptors none;
    const EventDescriptor event(std::nothrow);
    error = errno;
    isOpen = event.isOpen();
    descriptor = event.descriptor();
    event.ring();
    event.clear();
  }
  EXPECT_FALSE(isOpen);
  EXPECT_EQ(descriptor, -1);
  EXPECT_EQ(error, EMFILE);
  const EventDescriptor event(std::nothrow);
  EXPECT_TRUE(event.isOpen());
}

}  // namespace
}  // namespace platform
