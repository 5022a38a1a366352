// A kernel that knows neither source of changes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <functional>
#include <vector>

#include "platform/foundation/base/Exception.h"
#include "tests/support/KernelFilter.h"
#include "tests/watcher/WatcherFixture.h"
#include "watcher/CDEvents.h"
#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::ElementsAre;
using testing::IsEmpty;

class RefusedByTheKernel : public WatcherTest {
 protected:
  /// Runs `body` on a thread of its own for which the kernel has no source.
  static void refused(const std::function<void()>& body) {
    const std::vector<RefusedCall> sources = {{.number = SYS_fanotify_init, .error = ENOSYS},
                                              {.number = SYS_inotify_init1, .error = ENOSYS}};
    if (!withRefused(sources, body)) GTEST_SKIP() << "left out: a kernel without sources, because this one takes no filter";
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
    EXPECT_THAT(statusSection("watches").back().objectForKey("reason").stringValue(),
                testing::AllOf(testing::StartsWith("Failed to create event stream. ("), testing::HasSubstr("Function not implemented")));
    EXPECT_THAT(statusSection("streams"), IsEmpty());
    EXPECT_TRUE(statusOnDisk().isNil());
  });
}

}  // namespace
}  // namespace kestrine::test
