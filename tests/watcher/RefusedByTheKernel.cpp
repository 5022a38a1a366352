// A kernel that knows neither source of changes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cerrno>
#include <thread>

#include "platform/foundation/base/Exception.h"
#include "tests/watcher/WatcherFixture.h"
#include "watcher/CDEvents.h"
#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::ElementsAre;
using testing::IsEmpty;

/// From now on, this thread and those that it starts find that the kernel has no such calls.
bool refuseSources() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fanotify_init, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_inotify_init1, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{.len = std::size(program), .filter = program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

class RefusedByTheKernel : public WatcherTest {
 protected:
  /// Runs `body` on a thread of its own for which the kernel has no source.
  static void refused(const std::function<void()>& body) {
    bool able = false;
    std::thread([&] {
      able = refuseSources();
      if (able) body();
    }).join();
    if (!able) GTEST_SKIP() << "left out: a kernel without sources, because this one takes no filter";
  }
};

TEST_F(RefusedByTheKernel, AStreamThrowsWhenItIsMade) {
  refused([this] {
    try {
      const CDEvents events(listOfPath(watchedFolder()), [](CDEvents&, const std::shared_ptr<const CDEvent>&) {});
      FAIL() << "nothing was thrown";
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "CDEventsEventStreamCreationFailureException");
      EXPECT_EQ(exception.reason(), "Failed to create event stream.");
    }
    EXPECT_THAT(statusSection("streams"), IsEmpty());
  });
}

TEST_F(RefusedByTheKernel, AControllerReportsOnceAndStaysWithoutAStream) {
  setBasePath(base_.path());
  refused([] {
    CapturedLog log;
    FileWatcherServiceXPC controller;
    controller.initFileWatcher();
    platform::RunLoop::current()->run();
    EXPECT_THAT(beginningWith({"{\n    ErrorClass = ", "-[FileWatcherServiceXPC run]:"}, log.end()),
                ElementsAre(testing::StartsWith("{\n    ErrorClass = FileWatcher;\n")));
    EXPECT_EQ(statusSection("watches").back().objectForKey("state"), Object("failed"));
    EXPECT_EQ(statusSection("watches").back().objectForKey("reason"), Object("Failed to create event stream."));
    EXPECT_THAT(statusSection("streams"), IsEmpty());
    EXPECT_TRUE(statusOnDisk().isNil());
  });
}

}  // namespace
}  // namespace kestrine::test
