#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/fsevents/support/MountsTest.h"

// What is mounted, and that changes of it are told.

namespace kestrine::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class MountsOf : public MountsTest {};
KESTRINE_PER_RIGHTS(MountsOf);

TEST_P(MountsOf, AreReadAtTheBeginning) {
  inside([](const TemporaryDirectory& folder) {
    const Mounts mounts;
    EXPECT_EQ(mounts.error(), 0);
    EXPECT_GE(mounts.descriptor(), 0);
    const Mount* const mount = mounts.table().covering(folder / "anything");
    ASSERT_NE(mount, nullptr);
    EXPECT_EQ(mount->point, folder.path());
    EXPECT_EQ(mount->type, "tmpfs");
    EXPECT_FALSE(isTold(mounts));
  });
}

TEST_P(MountsOf, AreToldOnceForEachChange) {
  inside([](const TemporaryDirectory& folder) {
    makeFolder(folder / "a");
    Mounts mounts;
    const auto expectToldOnce = [&mounts](const char* what) {
      EXPECT_TRUE(isTold(mounts)) << what;
      EXPECT_FALSE(isTold(mounts)) << what;
    };
    mountAt(folder / "a", "tmpfs");
    expectToldOnce("mount");
    EXPECT_TRUE(mounts.read());
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), ElementsAre(folder / "a"));
    EXPECT_FALSE(isTold(mounts)) << "reading";
    EXPECT_FALSE(mounts.read()) << "nothing has changed";

    makeFolder(folder / "b");
    bindAt(folder / "b", folder / "a");
    expectToldOnce("bind");
    EXPECT_TRUE(mounts.read());
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), ElementsAre(folder / "a", folder / "b"));

    makeFolder(folder / "c");
    moveMount(folder / "b", folder / "c");
    EXPECT_TRUE(isTold(mounts));
    EXPECT_TRUE(mounts.read());
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), ElementsAre(folder / "a", folder / "c"));

    unmountAt(folder / "c");
    EXPECT_TRUE(isTold(mounts));
    EXPECT_TRUE(mounts.read());
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), ElementsAre(folder / "a"));

    detachAt(folder / "a");
    EXPECT_TRUE(isTold(mounts));
    EXPECT_TRUE(mounts.read());
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), IsEmpty());
    EXPECT_FALSE(isTold(mounts));
  });
}

TEST_P(MountsOf, AreNotToldOfWhatHappensInsideThem) {
  inside([](const TemporaryDirectory& folder) {
    makeFolder(folder / "a");
    mountAt(folder / "a", "tmpfs");
    Mounts mounts;
    for (int i = 0; i < 100; ++i) {
      const std::string path = folder / ("a/" + std::to_string(i));
      makeFolder(path);
      writeFile(path + "/file", "text");
      std::filesystem::rename(path, path + "moved");
    }
    EXPECT_FALSE(isTold(mounts));
    EXPECT_FALSE(mounts.read());
  });
}

TEST_P(MountsOf, AreNotToldOfAnotherNamespace) {
  inside([](const TemporaryDirectory& folder) {
    makeFolder(folder / "a");
    Mounts mounts;
    // A thread with mounts of its own: they are those of the thread, and the table is that of the thread that opened it.
    std::thread([&] {
      ASSERT_EQ(::unshare(CLONE_FS | CLONE_NEWNS), 0) << std::strerror(errno);
      mountAt(folder / "a", "tmpfs");
      const Mounts own;
      EXPECT_THAT(pointsSeenBelow(own, folder.path()), ElementsAre(folder / "a"));
    }).join();
    EXPECT_FALSE(isTold(mounts));
    EXPECT_FALSE(mounts.read());
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), IsEmpty());
  });
}

TEST_P(MountsOf, ShowTheOneOnTopAndNoneBeneathAnother) {
  inside([](const TemporaryDirectory& folder) {
    makeFolder(folder / "a");
    makeFolder(folder / "a/b");
    Mounts mounts;
    mountAt(folder / "a/b", "tmpfs");
    mountAt(folder / "a/b", "ramfs");
    mounts.read();
    EXPECT_EQ(typeAt(mounts, folder / "a/b"), "ramfs");
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), ElementsAre(folder / "a/b"));

    mountAt(folder / "a", "tmpfs");
    makeFolder(folder / "a/b");
    makeFolder(folder / "a/b/c");
    mounts.read();
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), ElementsAre(folder / "a"));
    EXPECT_EQ(typeAt(mounts, folder / "a/b"), "tmpfs");
    mountAt(folder / "a/b/c", "tmpfs");
    mounts.read();
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), ElementsAre(folder / "a", folder / "a/b/c"));

    unmountAt(folder / "a/b/c");
    unmountAt(folder / "a");
    mounts.read();
    EXPECT_EQ(typeAt(mounts, folder / "a/b"), "ramfs");
    unmountAt(folder / "a/b");
    mounts.read();
    EXPECT_EQ(typeAt(mounts, folder / "a/b"), "tmpfs");
  });
}

TEST_P(MountsOf, AreTheSameAsTheKernelReachesByTheirPaths) {
  inside([](const TemporaryDirectory& folder) {
    for (const char* const name : {"a", "a/b", "a/b/c", "d", "d-e"}) makeFolder(folder / name);
    mountAt(folder / "a/b/c", "tmpfs");
    mountAt(folder / "a/b", "tmpfs");
    bindAt(folder / "d", folder / "a");
    mountAt(folder / "d-e", "tmpfs");
    makeFolder(folder / "d-e/f");
    bindAt(folder / "d-e/f", folder / "d");
    mountAt(folder / "d", "tmpfs");
    const Mounts mounts;
    for (const char* const name : {"a", "a/b", "d", "d-e", "d-e/f", "d-e/f/b"}) {
      struct statx facts {};
      ASSERT_EQ(::statx(AT_FDCWD, (folder / name).c_str(), AT_NO_AUTOMOUNT, STATX_MNT_ID, &facts), 0);
      if ((facts.stx_mask & STATX_MNT_ID) == 0)
        GTEST_SKIP() << "left out: the comparison, because this kernel does not tell a folder's mount";
      const Mount* const mount = mounts.table().covering(folder / name);
      ASSERT_NE(mount, nullptr) << name;
      EXPECT_EQ(static_cast<std::uint64_t>(mount->id), facts.stx_mnt_id) << name;
    }
  });
}

TEST_P(MountsOf, UponTheRootAreReachedByNoPath) {
  inside([](const TemporaryDirectory& folder) {
    Mounts mounts;
    const Mount before = *mounts.table().covering("/");
    mountAt("/", "tmpfs");
    EXPECT_TRUE(mounts.read());
    EXPECT_EQ(*mounts.table().covering("/"), before);
    EXPECT_EQ(mounts.table().covering(folder.path())->point, folder.path());
    makeFolder(folder / "a");
    mountAt(folder / "a", "tmpfs");
    mounts.read();
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), ElementsAre(folder / "a"));
  });
}

TEST_P(MountsOf, ChangeTheirPlaceUntoldWhenAFolderAboveThemIsRenamed) {
  inside([](const TemporaryDirectory& folder) {
    makeFolder(folder / "a");
    makeFolder(folder / "a/m");
    mountAt(folder / "a/m", "tmpfs");
    Mounts mounts;
    std::filesystem::rename(folder / "a", folder / "z");
    EXPECT_FALSE(isTold(mounts));
    EXPECT_TRUE(mounts.read());
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), ElementsAre(folder / "z/m"));
  });
}

TEST_P(MountsOf, WithStrangeNamesAreFound) {
  inside([](const TemporaryDirectory& folder) {
    const std::string name = folder / "a b\tc\nd\\e#f\\040g\xff";
    makeFolder(name);
    mountAt(name, "ramfs");
    const Mounts mounts;
    EXPECT_EQ(typeAt(mounts, name), "ramfs");
    EXPECT_THAT(pointsSeenBelow(mounts, folder.path()), ElementsAre(name));
  });
}

TEST_P(MountsOf, AsSeenFromAnotherRootHaveTheirPathsFromThere) {
  inside([](const TemporaryDirectory& folder) {
    for (const char* const name : {"root", "root/proc", "root/m"}) makeFolder(folder / name);
    bindAt(folder / "root/proc", "/proc", Below::With);
    mountAt(folder / "root/m", "ramfs");
    std::thread([&] {
      ASSERT_EQ(::unshare(CLONE_FS), 0);
      ASSERT_EQ(::chroot((folder / "root").c_str()), 0);
      const Mounts mounts;
      EXPECT_EQ(mounts.error(), 0);
      EXPECT_EQ(mounts.table().covering("/elsewhere"), nullptr);
      EXPECT_EQ(typeAt(mounts, "/m/below"), "ramfs");
      std::vector<std::string> points = pointsSeenBelow(mounts, "/");
      std::erase_if(points, [](const std::string& point) { return point.starts_with("/proc/"); });
      EXPECT_THAT(points, ElementsAre("/m", "/proc"));
    }).join();
  });
}

}  // namespace
}  // namespace kestrine::test
