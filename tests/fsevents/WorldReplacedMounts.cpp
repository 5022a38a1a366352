#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/StreamProcess.h"
#include "tests/fsevents/support/WorldTest.h"
#include "tests/support/KernelFilter.h"

// Something is unmounted and something else of the same kind mounted in its place while the stream has no time to look: the kernel's table
// reads the same as before, and every mark is gone.

namespace kestrine::test {
namespace {

class WorldReplacedMounts : public WorldTest {
 protected:
  std::unique_ptr<StreamProcess> start(const std::string& path) const {
    auto process = std::make_unique<StreamProcess>(StreamProcess::Options{.paths = {path}, .source = sourceName(GetParam())});
    EXPECT_EQ(process->source(), sourceName(GetParam())) << process->error();
    return process;
  }

  static void replaceUnseen(const StreamProcess& process, const std::string& point) {
    process.halt();
    unmountAt(point);
    mountAt(point, "tmpfs");
    process.goOn();
  }

  static void expectTold(StreamProcess& process, const std::string& path, FSEventStreamEventFlags flags) {
    EXPECT_EQ(test::flagsOf(process.until(path, flags), path) & flags, flags) << path << "\n" << process.log();
  }
  static void expectReplacementWatched(StreamProcess& process, const std::string& point) {
    process.flush();
    replaceUnseen(process, point);
    expectTold(process, point, kMount | kUnmount);
    writeFile(point + "/new", "text");
    expectTold(process, point + "/new", kCreated);
  }

  void whatIsMountedBelow() {
    makeFolder(in("point"));
    mountAt(in("point"), "tmpfs");
    makeFolder(in("point/folder"));
    const auto process = start(root_);
    writeFile(in("point/folder/file"), "text");
    expectTold(*process, in("point/folder/file"), kCreated);
    for (int round = 0; round < 3; ++round) expectReplacementWatched(*process, in("point"));
  }

  void theWatchedPathItself() {
    mountAt(root_, "tmpfs");
    makeFolder(in("folder"));
    const auto process = start(root_);
    writeFile(in("folder/file"), "text");
    expectTold(*process, in("folder/file"), kCreated);
    for (int round = 0; round < 3; ++round) expectReplacementWatched(*process, root_);
  }

  /// As on a kernel before 6.8: listmount and statmount are unknown calls.
  static void withoutSerials(const std::function<void()>& body) {
    constexpr long kStatMount = 457;
    constexpr long kListMount = 458;
    if (!withRefused({{kStatMount, ENOSYS}, {kListMount, ENOSYS}}, body)) {
      GTEST_SKIP() << "left out: an older kernel, because this one takes no filter of system calls";
    }
  }
};
KESTRINE_PER_SOURCE(WorldReplacedMounts);

TEST_P(WorldReplacedMounts, BelowTheWatchedPathAreWatched) {
  inMountNamespace([this] { whatIsMountedBelow(); });
}

TEST_P(WorldReplacedMounts, BelowTheWatchedPathAreWatchedOnAnOlderKernel) {
  inMountNamespace([this] { withoutSerials([this] { whatIsMountedBelow(); }); });
}

TEST_P(WorldReplacedMounts, AtTheWatchedPathAreWatched) {
  inMountNamespace([this] { theWatchedPathItself(); });
}

TEST_P(WorldReplacedMounts, AtTheWatchedPathAreWatchedOnAnOlderKernel) {
  inMountNamespace([this] { withoutSerials([this] { theWatchedPathItself(); }); });
}

}  // namespace
}  // namespace kestrine::test
