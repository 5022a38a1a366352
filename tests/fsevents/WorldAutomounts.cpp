#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

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
  explicit AutomountPoint(const std::string& point) : point_(point) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    reading_ = FileHandle(ends[0]);
    writing_ = FileHandle(ends[1]);
    // The group of the one who mounts may always enter: it is another's.
    owner_ = ::fork();
    if (owner_ == 0) {
      ::setpgid(0, 0);
      for (;;) ::pause();
    }
    ::setpgid(owner_, owner_);
    try {
      mountAt(point, "autofs",
              "fd=" + std::to_string(ends[1]) + ",pgrp=" + std::to_string(owner_) + ",minproto=5,maxproto=5,direct", "test");
    } catch (...) {
      end();
      throw;
    }
  }
  ~AutomountPoint() {
    // Nobody answers any more, so that those who wait go on.
    writing_.closeFile();
    reading_.closeFile();
    detachAt(point_);
    end();
  }
  AutomountPoint(const AutomountPoint&) = delete;
  AutomountPoint& operator=(const AutomountPoint&) = delete;
  [[nodiscard]] bool wasAsked() const {
    pollfd ready{reading_.fileDescriptor(), POLLIN, 0};
    return ::poll(&ready, 1, 0) > 0;
  }

 private:
  void end() const {
    ::kill(owner_, SIGKILL);
    ::waitpid(owner_, nullptr, 0);
  }
  std::string point_;
  FileHandle reading_;
  FileHandle writing_;
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
