#include "platform/fsevents/engine/RootMonitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

namespace fs = std::filesystem;
using platform::fsevents::RootIdentity;
using platform::fsevents::RootMonitor;

class RootMonitorTest : public ::testing::Test {
 protected:
  RootMonitorTest() {
    fs::create_directories(path);
    monitor.arm();
  }
  /// Makes the watched folder one that nobody can remove, and has the monitor see that.
  void fill() {
    writeFile(path + "/inside", "x");
    monitor.arm();
  }

  TemporaryDirectory folder;
  std::string path = folder / "a/b/watched";
  RootMonitor monitor{{path}};
};

TEST_F(RootMonitorTest, TellsWhatStandsAtThePath) {
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  const RootIdentity seen = monitor.arm().front();
  EXPECT_TRUE(seen.exists);
  EXPECT_EQ(seen.device, info.st_dev);
  EXPECT_EQ(seen.inode, info.st_ino);
  fs::remove(path);
  EXPECT_FALSE(monitor.arm().front().exists);
}

TEST_F(RootMonitorTest, TellsANewFolderFromTheRemovedOneWhoseInodeNumberItGot) {
  for (int i = 0; i < 20; ++i) {
    const RootIdentity before = monitor.arm().front();
    fs::remove(path);
    fs::create_directory(path);
    EXPECT_NE(monitor.arm().front(), before);
  }
}

TEST_F(RootMonitorTest, IsNotWokenByTheNeighbours) {
  fill();
  writeFile(folder / "a/b/neighbour", "x");
  fs::create_directory(folder / "a/other");
  fs::rename(folder / "a/other", folder / "a/another");
  fs::remove(folder / "a/b/neighbour");
  writeFile(path + "/another", "x");
  int queued = -1;
  ASSERT_EQ(::ioctl(monitor.descriptor(), FIONREAD, &queued), 0);
  EXPECT_EQ(queued, 0);
  EXPECT_FALSE(monitor.read());
}

TEST_F(RootMonitorTest, LetsGoOfItsGuardWhenTheFolderIsEmptyNoLonger) {
  writeFile(folder / "a/b/neighbour", "x");
  fs::remove(folder / "a/b/neighbour");
  EXPECT_FALSE(monitor.read()) << "empty, and to be guarded on";
  writeFile(path + "/inside", "x");
  EXPECT_FALSE(monitor.read());
  writeFile(folder / "a/b/neighbour", "x");
  fs::remove(folder / "a/b/neighbour");
  EXPECT_TRUE(monitor.read());
  monitor.arm();
  writeFile(folder / "a/b/neighbour", "x");
  fs::remove(folder / "a/b/neighbour");
  int queued = -1;
  ASSERT_EQ(::ioctl(monitor.descriptor(), FIONREAD, &queued), 0);
  EXPECT_EQ(queued, 0);
}

TEST_F(RootMonitorTest, NeedsAGuardWhenTheFolderHasBecomeEmptyOrAnother) {
  EXPECT_FALSE(monitor.needsGuard(0)) << "it has one";
  fill();
  EXPECT_FALSE(monitor.needsGuard(0)) << "nobody can remove it";
  fs::remove(path + "/inside");
  EXPECT_TRUE(monitor.needsGuard(0));
  fill();
  fs::rename(path, folder / "a/b/elsewhere");
  fs::create_directory(path);
  writeFile(path + "/inside", "x");
  EXPECT_TRUE(monitor.needsGuard(0));
}

TEST_F(RootMonitorTest, NoticesTheRemovalOfWhatSomebodyHoldsOpen) {
  const platform::FileHandle held(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (const auto* removed : {"a/b/watched", "a/b", "a"}) {
    fs::remove(folder / removed);
    EXPECT_TRUE(monitor.read()) << removed;
    monitor.arm();
  }
  fs::create_directory(folder / "a");
  EXPECT_TRUE(monitor.read());
}

TEST_F(RootMonitorTest, NoticesTheRemovalAndTheMoveOfEachComponent) {
  fs::rename(path, folder / "a/b/elsewhere");
  EXPECT_TRUE(monitor.read());
  EXPECT_TRUE(monitor.wasMoved(0));
  EXPECT_TRUE(monitor.wasTouched(0));
  EXPECT_FALSE(monitor.arm().front().exists);
  fs::rename(folder / "a/b/elsewhere", path);
  EXPECT_TRUE(monitor.read());
  EXPECT_TRUE(monitor.arm().front().exists);
  fs::rename(folder / "a", folder / "z");
  EXPECT_TRUE(monitor.read());
  EXPECT_FALSE(monitor.arm().front().exists);
  fs::rename(folder / "z", folder / "a");
  EXPECT_TRUE(monitor.read());
  EXPECT_TRUE(monitor.arm().front().exists);
  fs::remove(path);
  EXPECT_TRUE(monitor.read());
  EXPECT_FALSE(monitor.wasMoved(0));
}

TEST_F(RootMonitorTest, WaitsForAMissingNameOnly) {
  fs::remove_all(folder / "a");
  EXPECT_TRUE(monitor.read());
  EXPECT_FALSE(monitor.arm().front().exists);
  fs::create_directory(folder / "b");
  EXPECT_FALSE(monitor.read());
  fs::create_directory(folder / "a");
  EXPECT_TRUE(monitor.read());
  monitor.arm();
  fs::create_directory(folder / "a/b");
  EXPECT_TRUE(monitor.read());
}

TEST_F(RootMonitorTest, FollowsLinksOnTheWayAndNoticesWhenOneIsReplaced) {
  fs::create_directories(folder / "one/watched");
  fs::create_directories(folder / "two/watched");
  fs::create_symlink("one", folder / "link");
  RootMonitor linked({folder / "link/watched"});
  const RootIdentity first = linked.arm().front();
  ASSERT_TRUE(first.exists);
  fs::create_symlink("two", folder / "fresh");
  EXPECT_FALSE(linked.read());
  fs::rename(folder / "fresh", folder / "link");
  EXPECT_TRUE(linked.read());
  const RootIdentity second = linked.arm().front();
  EXPECT_TRUE(second.exists);
  EXPECT_NE(first.inode, second.inode);
  fs::remove(folder / "link");
  EXPECT_TRUE(linked.read());
  EXPECT_FALSE(linked.arm().front().exists);
}

TEST_F(RootMonitorTest, GivesUpOnLinksThatGoRoundInACircle) {
  fs::create_symlink("circle", folder / "circle");
  RootMonitor circle({folder / "circle/watched"});
  EXPECT_FALSE(circle.arm().front().exists);
}

TEST_F(RootMonitorTest, TellsWhichOfSeveralPathsWasTouched) {
  fs::create_directories(folder / "other/watched");
  RootMonitor two({path, folder / "other/watched"});
  two.arm();
  fs::remove(folder / "other/watched");
  ASSERT_TRUE(two.read());
  EXPECT_FALSE(two.wasTouched(0));
  EXPECT_TRUE(two.wasTouched(1));
  EXPECT_FALSE(two.wasMoved(1));
  two.arm();
  fs::rename(path, folder / "elsewhere");
  ASSERT_TRUE(two.read());
  EXPECT_TRUE(two.wasMoved(0));
  EXPECT_FALSE(two.wasMoved(1));
}

TEST_F(RootMonitorTest, TakesNothingForGoneForWantOfDescriptors) {
  fill();
  rlimit kept{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &kept), 0);
  rlimit none = kept;
  none.rlim_cur = 0;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const bool isThere = monitor.arm().front().exists;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &kept), 0);
  EXPECT_TRUE(isThere);
  fs::rename(path, folder / "a/b/elsewhere");
  EXPECT_TRUE(monitor.read());
}

// The name that is waited for appears between the look for it and the watch, while what is below it is still missing.
TEST_F(RootMonitorTest, MissesNoAncestorThatAppearsWhileItLooks) {
  constexpr int kRounds = 2500;
  for (int i = 0; i < kRounds; ++i) {
    const std::string top = folder / std::to_string(i);
    RootMonitor awaiting({top + "/b/c"});
    std::atomic<bool> looks{false};
    std::thread maker([&] {
      while (!looks) continue;
      fs::create_directory(top);
    });
    looks = true;
    awaiting.arm();
    maker.join();
    // Either this look came too early to be the last, or the next is asked for, or it saw the folder and waits for what comes below it.
    if (awaiting.isSettled() && !awaiting.read()) {
      fs::create_directory(top + "/b");
      ASSERT_TRUE(awaiting.read()) << "round " << i;
    }
  }
}

}  // namespace
}  // namespace kestrine::test
