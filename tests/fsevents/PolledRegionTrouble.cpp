#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <thread>

#include "tests/fsevents/support/PolledWorld.h"

// Folders that cannot be looked at, and folders that come and go while a pass is under way.

namespace kestrine::test {
namespace {

using Why = PolledWorld::Region::Why;
using Told = std::map<std::string, FSEventStreamEventFlags>;

class PolledRegionTrouble : public testing::Test {
 protected:
  [[nodiscard]] std::string in(const std::string& name) const { return base_ / name; }
  TemporaryDirectory base_;
};

/// From here on the kernel answers the calling thread's statx(2) with EIO. False where it has no such filter.
bool breakDisk() {
  sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_statx, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{.len = std::size(steps), .filter = steps};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST_F(PolledRegionTrouble, OfAFolderIsSaidAndItsChangesAreToldAfterwards) {
  makeFolders(in("a"));
  makeFolders(in("b"));
  writeFile(in("a/old"), "text");
  PolledWorld world(base_.path());
  world.settle();
  world.refusals[in("a")] = EIO;
  removeItem(in("a/old"));
  writeFile(in("a/new"), "");
  writeFile(in("b/new"), "");
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("b/new"), kCreated | kIsFile}}));
  EXPECT_EQ(world.failures, (std::vector<std::pair<std::string, int>>{{in("a"), EIO}}));
  world.pass();
  EXPECT_EQ(world.failures.size(), 2U);
  EXPECT_TRUE(world.recoveries.empty());
  world.refusals.clear();
  PolledWorld::letStampsGoOn();
  world.pass();
  const auto told = world.take();
  EXPECT_EQ(told.at(in("a/old")), kRemoved | kIsFile);
  EXPECT_EQ(told.at(in("a/new")), kCreated | kIsFile);
  EXPECT_EQ(world.recoveries, std::vector<std::string>{in("a")});
  EXPECT_EQ(world.region().folders(), 3U);
}

TEST_F(PolledRegionTrouble, OfAnItemIsSaidAndWhatIsKnownOfItStays) {
  writeFile(in("file"), "text");
  makeFolder(in("folder"));
  PolledWorld world(base_.path());
  world.settle();
  appendFile(in("file"), "more");
  removeItem(in("folder"));
  bool isBroken = false;
  std::thread([&] {
    isBroken = breakDisk();
    if (isBroken) world.pass();
  }).join();
  if (!isBroken) GTEST_SKIP() << "left out: failing items, because the kernel filters no system calls";
  EXPECT_EQ(world.take(), Told{}) << "nothing is known of them";
  EXPECT_FALSE(world.failures.empty());
  for (const auto& [path, error] : world.failures) EXPECT_EQ(error, EIO) << path;
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("file"), kModified | kIsFile}, {in("folder"), kRemoved | kIsFolder}}));
  EXPECT_EQ(world.recoveries, std::vector<std::string>{base_.path()});
}

TEST_F(PolledRegionTrouble, OfABaselineLeavesTheFolderOut) {
  PolledWorld world(base_.path());
  const auto folders = world.region().folders();
  const platform::FileHandle unreadable(::open(base_.path().c_str(), O_PATH | O_CLOEXEC));
  errno = 0;
  EXPECT_FALSE(world.region().add(77, unreadable.fileDescriptor(), Why::OthersWrite));
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(world.region().folders(), folders);
}

TEST_F(PolledRegionTrouble, WithRightsLeavesNamesAndInodes) {
  makeFolders(in("f/sub"));
  writeFile(in("f/file"), "text");
  writeFile(in("f/other"), "text");
  ASSERT_TRUE(::geteuid() != 0 || ::chmod(base_.path().c_str(), 0755) == 0);
  PolledWorld world(base_.path());
  world.settle();
  setMode(in("f"), 0444);
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("f"), kMetadata | kIsFolder}}));
  const auto passWithoutRights = [&] {
    std::thread([&] {
      if (::geteuid() == 0) ::setfsuid(65534);
      world.refusals[in("f/sub")] = EACCES;
      world.pass();
    }).join();
    world.refusals.clear();
  };
  passWithoutRights();
  // The names and numbers are the same. The folder's own change may be told once more, since another within the same tick would look alike.
  for (const auto& [path, flags] : world.take()) EXPECT_EQ(path, in("f")) << flags;
  // An ordinary user was refused in the pass before, too.
  EXPECT_EQ(world.failures, (std::vector<std::pair<std::string, int>>(::geteuid() == 0 ? 1 : 2, {in("f/sub"), EACCES})));
  // What comes and goes is told by name, what changes when it can be looked at again.
  setMode(in("f"), 0755);
  writeFile(in("f/new"), "");
  removeItem(in("f/other"));
  appendFile(in("f/file"), "more");
  setMode(in("f"), 0444);
  passWithoutRights();
  auto told = world.take();
  EXPECT_EQ(told.at(in("f/new")), kCreated | kIsFile);
  EXPECT_EQ(told.at(in("f/other")), kRemoved | kIsFile);
  EXPECT_FALSE(told.contains(in("f/file")));
  setMode(in("f"), 0755);
  world.pass();
  told = world.take();
  EXPECT_EQ(told.at(in("f/file")), kModified | kIsFile);
  EXPECT_EQ(told.at(in("f/new")), kModified | kIsFile) << "never seen, so it may have changed";
  EXPECT_FALSE(told.contains(in("f/sub")));
  EXPECT_EQ(world.differences(), std::vector<std::string>{});
}

TEST_F(PolledRegionTrouble, WithAFolderThatIsGoneIsNone) {
  makeFolders(in("a"));
  PolledWorld world(base_.path());
  world.settle();
  world.refusals[in("a")] = ENOENT;
  world.pass();
  EXPECT_TRUE(world.failures.empty());
  EXPECT_EQ(world.take(), Told{});
}

TEST_F(PolledRegionTrouble, MarksThatStandAgainEndThePollingAfterOneMoreLook) {
  makeFolders(in("a"));
  makeFolders(in("b"));
  makeFolders(in("c"));
  PolledWorld world(base_.path(), {.why = Why::MarkRefused});
  world.settle();
  world.marked.clear();
  writeFile(in("a/one"), "");
  world.pass();
  EXPECT_EQ(world.marked.size(), 1U) << "after the first refusal no more are tried";
  EXPECT_EQ(world.take().size(), 1U);
  // One is to be had: what happened until then is told, what comes after is the kernel's.
  world.marks = [&](const std::string& path) {
    writeFile(path + "/before", "");
    return path == base_.path();
  };
  world.pass();
  world.marks = [](const std::string&) { return false; };
  EXPECT_NE(world.flagsOf(in("before")) & kCreated, 0U);
  EXPECT_EQ(world.leftFolders, std::vector<std::string>{base_.path()});
  EXPECT_EQ(world.region().folders(), 3U);
  writeFile(in("after"), "");
  world.pass();
  EXPECT_EQ(world.flagsOf(in("after")), 0U);
  // A look that fails is not the last.
  world.marks = [](const std::string&) { return true; };
  world.refusals[in("b")] = EIO;
  world.pass();
  EXPECT_EQ(world.region().folders(), 1U);
  world.refusals.clear();
  writeFile(in("b/one"), "");
  world.pass();
  EXPECT_NE(world.flagsOf(in("b/one")) & kCreated, 0U);
  EXPECT_TRUE(world.region().empty());
  EXPECT_FALSE(world.region().due().has_value());
}

TEST_F(PolledRegionTrouble, OfUndecidedItemsIsToldWithTheLastLook) {
  PolledWorld world(base_.path(), {.why = Why::MarkRefused, .timeStep = std::chrono::seconds(3)});
  writeFile(in("file"), "text");
  world.pass();
  world.take();
  world.marks = [](const std::string&) { return true; };
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("file"), kModified | kIsFile}}));
  EXPECT_TRUE(world.region().empty());
}

TEST_F(PolledRegionTrouble, FoldersAreRemovedAndAddedWhileAPassIsUnderWay) {
  for (int i = 0; i < 40; ++i) {
    makeFolder(in(std::to_string(i)));
    for (int k = 0; k < 100; ++k) writeFile(in(std::to_string(i)) + "/" + std::to_string(k), "");
  }
  PolledWorld world(base_.path(), {.slice = std::chrono::nanoseconds(1)});
  world.settle();
  for (int i = 0; i < 40; ++i) writeFile(in(std::to_string(i)) + "/new", "");
  int slice = 0;
  std::vector<std::string> removed;
  world.pass([&] {
    ++slice;
    if (slice == 1) makeFolders(in("late/below"));
    // The one that is being listed, ones that were and ones that will be.
    if (slice % 3 != 0 || slice > 60) return;
    const std::string path = in(std::to_string(slice / 3));
    removed.push_back(path);
    world.removeFromRegion(world.nodeOf(path));
  });
  EXPECT_GE(removed.size(), 10U);
  const auto told = world.take();
  for (int i = 0; i < 40; ++i) {
    const std::string path = in(std::to_string(i));
    if (std::find(removed.begin(), removed.end(), path) == removed.end()) {
      EXPECT_TRUE(told.contains(path + "/new")) << path;
    }
  }
  for (const auto& [path, flags] : told) EXPECT_TRUE(path.ends_with("/new") || path.starts_with(in("late"))) << path;
  world.pass();
  const auto after = world.take();
  EXPECT_TRUE(told.contains(in("late")) || after.contains(in("late")));
  EXPECT_TRUE(world.region().contains(world.nodeOf(in("late/below"))));
  EXPECT_EQ(world.region().folders(), 41U - removed.size() + 2U);
}

TEST_F(PolledRegionTrouble, ThatEmptiesTheRegionEndsThePass) {
  for (int k = 0; k < 300; ++k) writeFile(in(std::to_string(k)), "");
  PolledWorld world(base_.path(), {.slice = std::chrono::nanoseconds(1)});
  world.region().hasten();
  world.region().work(world, std::chrono::nanoseconds(1));
  const auto open = openDescriptors();
  world.removeFromRegion(0);
  EXPECT_LT(openDescriptors(), open) << "the folder under way is held open";
  EXPECT_FALSE(world.region().work(world, std::chrono::seconds(1)).has_value());
  // And it begins anew.
  const platform::FileHandle folder(::open(base_.path().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(world.region().add(0, folder.fileDescriptor(), Why::OthersWrite));
  world.settle();
  writeFile(in("new"), "");
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("new"), kCreated | kIsFile}}));
}

TEST_F(PolledRegionTrouble, LeavesTheDescriptorOfABaselineAtItsBeginning) {
  for (int k = 0; k < 10; ++k) writeFile(in(std::to_string(k)), "");
  PolledWorld world(base_.path());
  const platform::FileHandle folder(::open(base_.path().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(world.region().add(9, folder.fileDescriptor(), Why::OthersWrite));
  char buffer[4096];
  EXPECT_GT(::syscall(SYS_getdents64, folder.fileDescriptor(), buffer, sizeof buffer), 10);
}

}  // namespace
}  // namespace kestrine::test
