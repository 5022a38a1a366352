#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/fsevents/support/PolledWorld.h"

// Changes that leave the same stamp as the one before. Where the file system gives a change after a look a stamp of its own (Linux 6.13 on
// ext4, btrfs, xfs and tmpfs) there are none, so these are made on one that never does.

namespace kestrine::test {
namespace {

using platform::FileHandle;

constexpr int kMissed = 10;
constexpr int kNeverAlike = 11;
constexpr int kNoMount = 12;
constexpr int kToldTooOften = 13;

bool isSameStamp(int file, const struct stat& before) {
  struct stat after {};
  return ::fstat(file, &after) == 0 && before.st_ctim.tv_sec == after.st_ctim.tv_sec && before.st_ctim.tv_nsec == after.st_ctim.tv_nsec;
}

/// In a process of its own, whose mounts nobody else sees.
int changeInTheInstantOfALook(const std::string& folder) {
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 || ::mount("ramfs", folder.c_str(), "ramfs", 0, nullptr) != 0)
    return kNoMount;
  const std::string path = folder + "/file";
  const FileHandle file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  PolledWorld world(folder);
  int alike = 0;
  for (int round = 0; round < 60; ++round) {
    if (::pwrite(file.fileDescriptor(), "x", 1, 0) != 1) return kNoMount;
    struct stat seen {};
    if (::fstat(file.fileDescriptor(), &seen) != 0) return kNoMount;
    world.pass();
    world.take();
    if (::pwrite(file.fileDescriptor(), "y", 1, 0) != 1) return kNoMount;
    alike += isSameStamp(file.fileDescriptor(), seen) ? 1 : 0;
    PolledWorld::letStampsGoOn();
    world.pass();
    if ((world.flagsOf(path) & kModified) == 0) return kMissed;
    for (int look = 0; look < 2; ++look) {
      PolledWorld::letStampsGoOn();
      world.pass();
    }
    if (world.log().size() > 2) return kToldTooOften;
  }
  return alike > 0 ? 0 : kNeverAlike;
}

TEST(PolledRegionStamps, ThatAreTheSameHideNoChange) {
  const TemporaryDirectory base;
  const pid_t child = ::fork();
  if (child == 0) {
    const int separate = ::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 ? 0 : kNoMount;
    ::_exit(separate == 0 ? changeInTheInstantOfALook(base.path()) : separate);
  }
  ASSERT_GT(child, 0);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kNoMount) GTEST_SKIP() << "left out: equal stamps, because no ramfs can be mounted";
  EXPECT_NE(WEXITSTATUS(status), kMissed) << "a change was not told";
  EXPECT_NE(WEXITSTATUS(status), kNeverAlike) << "no two changes had the same stamp";
  EXPECT_NE(WEXITSTATUS(status), kToldTooOften);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace kestrine::test
