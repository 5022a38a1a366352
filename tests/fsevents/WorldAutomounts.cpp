#include <fcntl.h>
#include <linux/auto_fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <future>
#include <stdexcept>

#include "platform/foundation/base/FileHandle.h"
#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/WorldTest.h"

// What is mounted when somebody comes near: watching is no reason to.

namespace kestrine::test {
namespace {

using platform::FileHandle;

/// A point where the kernel asks for a mount (autofs) as soon as somebody opens it, and lets him wait until this object ends.
class AutomountPoint {
 public:
  explicit AutomountPoint(const std::string& point) {
    auto questions = makePipe();
    auto orders = makePipe();
    questions_ = std::move(questions[0]);
    // Only those of the group that the kernel asks may enter unasked: it is another's, who ends it in the end.
    owner_ = ::fork();
    if (owner_ == 0) {
      ::setpgid(0, 0);
      ::close(orders[1].fileDescriptor());
      endOnOrder(orders[0].fileDescriptor(), point.c_str());
    }
    ::setpgid(owner_, owner_);
    order_ = std::move(orders[1]);
    try {
      const auto pipe = std::to_string(questions[1].fileDescriptor());
      mountAt(point, "autofs", "fd=" + pipe + ",pgrp=" + std::to_string(owner_) + ",minproto=5,maxproto=5,direct", "test");
    } catch (...) {
      end();
      throw;
    }
  }
  ~AutomountPoint() { end(); }
  AutomountPoint(const AutomountPoint&) = delete;
  AutomountPoint& operator=(const AutomountPoint&) = delete;
  [[nodiscard]] bool wasAsked() const {
    pollfd ready{questions_.fileDescriptor(), POLLIN, 0};
    return ::poll(&ready, 1, 0) > 0;
  }

 private:
  static std::array<FileHandle, 2> makePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    return {FileHandle(ends[0]), FileHandle(ends[1])};
  }
  // In a process that was forked from one of several threads: system calls only.
  [[noreturn]] static void endOnOrder(int order, const char* point) {
    char byte = 0;
    static_cast<void>(!::read(order, &byte, 1));
    const int root = ::open(point, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // Nobody is asked any more, and those who wait go on.
    if (root >= 0) ::ioctl(root, AUTOFS_IOC_CATATONIC, 0);
    ::umount2(point, MNT_DETACH | UMOUNT_NOFOLLOW);
    ::_exit(0);
  }
  void end() {
    order_.closeFile();
    ::waitpid(owner_, nullptr, 0);
  }
  FileHandle questions_;
  FileHandle order_;
  pid_t owner_ = -1;
};

class WorldAutomounts : public WorldTest {
 protected:
  void run(const std::function<void()>& body) {
    inMountNamespace([&] {
      makeFolders(in("auto"));
      makeFolders(in("beside"));
      try {
        // Ends when the point does.
        std::future<void> visitor;
        const AutomountPoint tried(in("auto"));
        visitor = std::async(std::launch::async, [this] { ::close(::open(in("auto").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); });
        EXPECT_TRUE(eventually([&] { return tried.wasAsked(); })) << "it does not even ask for one who enters";
      } catch (const std::runtime_error& refusal) {
        GTEST_SKIP() << "left out: automounts, because the machine refuses one: " << refusal.what();
      }
      body();
    });
  }
};
KESTRINE_PER_SOURCE(WorldAutomounts);

TEST_P(WorldAutomounts, AreNotTriggeredByTheStart) {
  run([this] {
    const AutomountPoint point(in("auto"));
    const auto stream = watchRoot();
    EXPECT_TRUE(isWatched(*stream, in("beside"), "file"));
    EXPECT_FALSE(point.wasAsked());
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldAutomounts, AreNotTriggeredWhenTheyCome) {
  run([this] {
    const auto stream = watchRoot();
    {
      const AutomountPoint point(in("auto"));
      ASSERT_TRUE(stream->waitFor(in("auto"), kMount)) << stream->describe();
      EXPECT_TRUE(isWatched(*stream, in("beside"), "file"));
      EXPECT_FALSE(point.wasAsked());
    }
    ASSERT_TRUE(stream->waitFor(in("auto"), kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("auto"), "underneath"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

}  // namespace
}  // namespace kestrine::test
