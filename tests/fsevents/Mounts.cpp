#include "platform/fsevents/Mounts.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/support/KernelFilter.h"
#include "tests/support/TemporaryDirectory.h"

// Real mounts, each test in a namespace of its own.

namespace kestrine::test {
namespace {

using platform::fsevents::Mount;
using platform::fsevents::Mounts;
using testing::ElementsAre;
using testing::IsEmpty;

bool isTold(const Mounts& mounts, int milliseconds = 0) {
  pollfd poller{mounts.descriptor(), POLLPRI, 0};
  return ::poll(&poller, 1, milliseconds) == 1 && (poller.revents & POLLPRI) != 0;
}

std::vector<std::string> pointsBelow(const Mounts& mounts, const std::string& path) {
  std::vector<std::string> points;
  for (const Mount& mount : mounts.table().below(path)) points.push_back(mount.point);
  return points;
}

std::string typeAt(const Mounts& mounts, const std::string& path) {
  const Mount* const mount = mounts.table().covering(path);
  return mount == nullptr ? "" : mount->type;
}

std::vector<std::string> bindMany(int count, const std::string& folder, const std::string& what) {
  constexpr int kFirst = 10000;
  std::vector<std::string> points;
  for (int i = 0; i < count; ++i) {
    points.push_back(folder + "/m" + std::to_string(kFirst + i));
    makeFolder(points.back());
    bindAt(points.back(), what);
  }
  return points;
}

bool hasSerials() {
  struct {
    std::uint32_t size = 24;
    std::uint32_t spare = 0;
    std::uint64_t mount = ~std::uint64_t{0};
    std::uint64_t last = 0;
  } request;
  std::uint64_t first = 0;
  constexpr long kListMount = 458;
  return ::syscall(kListMount, &request, &first, 1UL, 0U) == 1;
}

class MountsOf : public testing::TestWithParam<Rights> {
 protected:
  static void inside(const std::function<void(const TemporaryDirectory&)>& body) {
    inMountNamespace(
        [&body] {
          const TemporaryDirectory folder;
          // Everything in memory of the test's own, whatever the folder is on.
          mountAt(folder.path(), "tmpfs");
          body(folder);
          detachAt(folder.path());
        },
        GetParam());
  }
};
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
    EXPECT_THAT(pointsBelow(mounts, folder.path()), ElementsAre(folder / "a"));
    EXPECT_FALSE(isTold(mounts)) << "reading";
    EXPECT_FALSE(mounts.read()) << "nothing has changed";

    makeFolder(folder / "b");
    bindAt(folder / "b", folder / "a");
    expectToldOnce("bind");
    EXPECT_TRUE(mounts.read());
    EXPECT_THAT(pointsBelow(mounts, folder.path()), ElementsAre(folder / "a", folder / "b"));

    makeFolder(folder / "c");
    moveMount(folder / "b", folder / "c");
    EXPECT_TRUE(isTold(mounts));
    EXPECT_TRUE(mounts.read());
    EXPECT_THAT(pointsBelow(mounts, folder.path()), ElementsAre(folder / "a", folder / "c"));

    unmountAt(folder / "c");
    EXPECT_TRUE(isTold(mounts));
    EXPECT_TRUE(mounts.read());
    EXPECT_THAT(pointsBelow(mounts, folder.path()), ElementsAre(folder / "a"));

    detachAt(folder / "a");
    EXPECT_TRUE(isTold(mounts));
    EXPECT_TRUE(mounts.read());
    EXPECT_THAT(pointsBelow(mounts, folder.path()), IsEmpty());
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
      EXPECT_THAT(pointsBelow(own, folder.path()), ElementsAre(folder / "a"));
    }).join();
    EXPECT_FALSE(isTold(mounts));
    EXPECT_FALSE(mounts.read());
    EXPECT_THAT(pointsBelow(mounts, folder.path()), IsEmpty());
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
    EXPECT_THAT(pointsBelow(mounts, folder.path()), ElementsAre(folder / "a/b"));

    mountAt(folder / "a", "tmpfs");
    makeFolder(folder / "a/b");
    makeFolder(folder / "a/b/c");
    mounts.read();
    EXPECT_THAT(pointsBelow(mounts, folder.path()), ElementsAre(folder / "a"));
    EXPECT_EQ(typeAt(mounts, folder / "a/b"), "tmpfs");
    mountAt(folder / "a/b/c", "tmpfs");
    mounts.read();
    EXPECT_THAT(pointsBelow(mounts, folder.path()), ElementsAre(folder / "a", folder / "a/b/c"));

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
    EXPECT_THAT(pointsBelow(mounts, folder.path()), ElementsAre(folder / "a"));
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
    EXPECT_THAT(pointsBelow(mounts, folder.path()), ElementsAre(folder / "z/m"));
  });
}

TEST_P(MountsOf, WithStrangeNamesAreFound) {
  inside([](const TemporaryDirectory& folder) {
    const std::string name = folder / "a b\tc\nd\\e#f\\040g\xff";
    makeFolder(name);
    mountAt(name, "ramfs");
    const Mounts mounts;
    EXPECT_EQ(typeAt(mounts, name), "ramfs");
    EXPECT_THAT(pointsBelow(mounts, folder.path()), ElementsAre(name));
  });
}

TEST_P(MountsOf, ThatAreReplacedBetweenTwoLooksAreSeenToBeOthers) {
  inside([](const TemporaryDirectory& folder) {
    if (!hasSerials()) GTEST_SKIP() << "left out: a mount in place of another, because this kernel does not tell them apart";
    makeFolder(folder / "a");
    mountAt(folder / "a", "tmpfs");
    Mounts mounts;
    const Mount before = *mounts.table().covering(folder / "a");
    unmountAt(folder / "a");
    mountAt(folder / "a", "tmpfs");
    EXPECT_TRUE(mounts.read());
    const Mount after = *mounts.table().covering(folder / "a");
    EXPECT_NE(before.serial, after.serial);
    EXPECT_NE(before.serial, 0U);
    EXPECT_NE(after.serial, 0U);
    EXPECT_NE(before, after);
  });
}

/// As on a kernel that numbers no mounts for ever: listmount and statmount are unknown calls.
void withoutSerials(const std::function<void()>& body) {
  constexpr long kStatMount = 457;
  constexpr long kListMount = 458;
  if (!withRefused({{kStatMount, ENOSYS}, {kListMount, ENOSYS}}, body)) {
    GTEST_SKIP() << "left out: an older kernel, because this one takes no filter of system calls";
  }
}

TEST_P(MountsOf, ThatAreReplacedAreSeenToBeOthersWithoutSerialsToo) {
  inside([](const TemporaryDirectory& folder) {
    withoutSerials([&folder] {
      makeFolder(folder / "a");
      makeFolder(folder / "b");
      mountAt(folder / "a", "tmpfs");
      mountAt(folder / "b", "tmpfs");
      Mounts mounts;
      const auto at = [&](const char* name) { return *mounts.table().covering(folder / name); };
      EXPECT_EQ(mounts.attend({at("a"), at("b")}), 0);
      for (int round = 0; round < 3; ++round) {
        const Mount before = at("a");
        const Mount other = at("b");
        unmountAt(folder / "a");
        mountAt(folder / "a", "tmpfs");
        EXPECT_TRUE(mounts.read());
        EXPECT_NE(at("a"), before);
        EXPECT_EQ(at("a").id, before.id);
        EXPECT_EQ(at("a").device, before.device);
        EXPECT_EQ(at("b"), other);
        EXPECT_FALSE(mounts.read());
        EXPECT_EQ(mounts.attend({at("a"), at("b")}), 0);
      }
    });
  });
}

TEST_P(MountsOf, WithoutSerialsAreNotTakenForOthersWhileTheyStand) {
  inside([](const TemporaryDirectory& folder) {
    withoutSerials([&folder] {
      for (const char* const name : {"a", "a bind", "b"}) makeFolder(folder / name);
      mountAt(folder / "a", "tmpfs");
      bindAt(folder / "a bind", folder / "a");
      Mounts mounts;
      EXPECT_EQ(mounts.attend({*mounts.table().covering(folder / "a"), *mounts.table().covering(folder / "a bind")}), 0);
      const Mount before = *mounts.table().covering(folder / "a");
      mountAt(folder / "b", "tmpfs");
      writeFile(folder / "a/file", "text");
      unmountAt(folder / "b");
      EXPECT_FALSE(mounts.read());
      // Its file system lives on, and with it all that is watched there.
      unmountAt(folder / "a bind");
      bindAt(folder / "a bind", folder / "a");
      EXPECT_FALSE(mounts.read());
      EXPECT_EQ(*mounts.table().covering(folder / "a"), before);
      EXPECT_EQ(mounts.attend({}), 0);
      unmountAt(folder / "a bind");
      unmountAt(folder / "a");
      EXPECT_TRUE(mounts.read());
      EXPECT_EQ(typeAt(mounts, folder / "a"), "tmpfs");
      EXPECT_EQ(mounts.table().covering(folder / "a")->point, folder.path());
    });
  });
}

TEST_P(MountsOf, WithoutSerialsAreToldApartAndStayTheSameWhenTheyMove) {
  inside([](const TemporaryDirectory& folder) {
    withoutSerials([&folder] {
      for (const char* const name : {"a", "b", "c"}) makeFolder(folder / name);
      mountAt(folder / "a", "tmpfs");
      bindAt(folder / "b", folder / "a");
      Mounts mounts;
      std::set<std::uint64_t> serials;
      for (const Mount& mount : mounts.table().all()) serials.insert(mount.serial);
      EXPECT_EQ(serials.size(), mounts.table().all().size());
      EXPECT_FALSE(serials.contains(0));
      const std::uint64_t before = mounts.table().covering(folder / "b")->serial;
      moveMount(folder / "b", folder / "c");
      EXPECT_TRUE(mounts.read());
      EXPECT_EQ(mounts.table().covering(folder / "c")->serial, before);
    });
  });
}

TEST_P(MountsOf, WithoutSerialsAreNotHeldBusyByTheirWitness) {
  inside([](const TemporaryDirectory& folder) {
    withoutSerials([&folder] {
      makeFolder(folder / "a");
      mountAt(folder / "a", "tmpfs");
      Mounts mounts;
      EXPECT_EQ(mounts.attend({*mounts.table().covering(folder / "a")}), 0);
      EXPECT_NO_THROW(unmountAt(folder / "a"));
    });
  });
}

TEST_P(MountsOf, WithoutSerialsAndWithoutAWitnessSaySo) {
  inside([](const TemporaryDirectory& folder) {
    withoutSerials([&folder] {
      makeFolder(folder / "a");
      mountAt(folder / "a", "tmpfs");
      Mounts mounts;
      const Mount mount = *mounts.table().covering(folder / "a");
      // The whole process would be short of descriptors, this test's own as well: the kernel refuses the call instead.
      ASSERT_TRUE(withRefused({{SYS_inotify_init1, EMFILE}}, [&] { EXPECT_EQ(mounts.attend({mount}), EMFILE); }));
      ASSERT_TRUE(withRefused({{SYS_inotify_add_watch, ENOSPC}}, [&] { EXPECT_EQ(mounts.attend({mount}), ENOSPC); }));
      EXPECT_EQ(mounts.attend({mount}), 0);
      Mount gone = mount;
      gone.id += 1000;
      gone.point = folder / "nowhere";
      EXPECT_EQ(mounts.attend({gone, mount}), ENOENT);
      unmountAt(folder / "a");
      mountAt(folder / "a", "tmpfs");
      EXPECT_TRUE(mounts.read());
    });
  });
}

TEST_P(MountsOf, InThousandsAreReadWhole) {
  inside([](const TemporaryDirectory& folder) {
    makeFolder(folder / "a");
    mountAt(folder / "a", "tmpfs");
    Mounts mounts;
    std::vector<std::string> expected = bindMany(1500, folder.path(), folder / "a");
    expected.insert(expected.begin(), folder / "a");
    EXPECT_TRUE(isTold(mounts));
    EXPECT_FALSE(isTold(mounts)) << "one notice for all";
    EXPECT_TRUE(mounts.read());
    EXPECT_EQ(pointsBelow(mounts, folder.path()), expected);
  });
}

TEST_P(MountsOf, ThatStandStillAreNeverMissedWhileOthersComeAndGo) {
  inside([](const TemporaryDirectory& folder) {
    makeFolder(folder / "a");
    mountAt(folder / "a", "tmpfs");
    const std::vector<std::string> standing = bindMany(200, folder.path(), folder / "a");
    makeFolder(folder / "busy");
    std::atomic<bool> end = false;
    std::thread busy([&] {
      while (!end) {
        bindAt(folder / "busy", folder / "a");
        detachAt(folder / "busy");
      }
    });
    Mounts mounts;
    const auto standingNow = [&] {
      std::vector<std::string> points = pointsBelow(mounts, folder.path());
      std::erase(points, folder / "a");
      std::erase(points, folder / "busy");
      return points;
    };
    for (int i = 0; i < 50; ++i) {
      mounts.read();
      EXPECT_EQ(standingNow(), standing) << i;
    }
    end = true;
    busy.join();
    // Whatever was going on, what is to be seen in the end is told.
    if (isTold(mounts)) mounts.read();
    EXPECT_EQ(pointsBelow(mounts, folder.path()).size(), standing.size() + 1);
    EXPECT_EQ(standingNow(), standing);
    EXPECT_FALSE(mounts.read());
  });
}

TEST_P(MountsOf, ThatReplaceOneAnotherAreNeverSeenTogether) {
  inside([](const TemporaryDirectory& folder) {
    for (const char* const name : {"first", "between", "last", "a"}) makeFolder(folder / name);
    mountAt(folder / "a", "tmpfs");
    constexpr int kRounds = 10;
    for (int round = 0; round < kRounds; ++round) {
      bindAt(folder / "first", folder / "a");
      // So many between the two that reading takes longer than their change.
      mountAt(folder / "between", "tmpfs");
      bindMany(1500, folder / "between", folder / "a");
      Mounts mounts;
      std::atomic<bool> begun = false;
      std::thread replacing([&] {
        while (!begun) std::this_thread::yield();
        detachAt(folder / "first");
        bindAt(folder / "last", folder / "a");
      });
      bool replaced = false;
      while (!replaced) {
        mounts.read();
        begun = true;
        const bool hasFirst = mounts.table().covering(folder / "first")->point != folder.path();
        replaced = mounts.table().covering(folder / "last")->point != folder.path();
        EXPECT_FALSE(hasFirst && replaced) << "round " << round;
      }
      replacing.join();
      detachAt(folder / "last");
      detachAt(folder / "between");
    }
  });
}

TEST_P(MountsOf, AreKnownAsTheyWereWhileTheTableCannotBeRead) {
  inside([](const TemporaryDirectory& folder) {
    Mounts mounts;
    ASSERT_EQ(typeAt(mounts, folder.path()), "tmpfs");
    // Nothing can be read from what now bears the number of the table's descriptor.
    const int kept = ::fcntl(mounts.descriptor(), F_DUPFD_CLOEXEC, 0);
    const platform::FileHandle other(::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::dup3(other.fileDescriptor(), mounts.descriptor(), O_CLOEXEC), mounts.descriptor());
    EXPECT_FALSE(mounts.read());
    EXPECT_EQ(mounts.error(), EISDIR);
    EXPECT_EQ(typeAt(mounts, folder.path()), "tmpfs");
    makeFolder(folder / "a");
    mountAt(folder / "a", "ramfs");
    ASSERT_EQ(::dup3(kept, mounts.descriptor(), O_CLOEXEC), mounts.descriptor());
    ::close(kept);
    EXPECT_TRUE(mounts.read());
    EXPECT_EQ(mounts.error(), 0);
    EXPECT_EQ(typeAt(mounts, folder / "a"), "ramfs");
  });
}

TEST_P(MountsOf, WithoutATableSaySoAndFindItWhenItIsThere) {
  inside([](const TemporaryDirectory& folder) {
    makeFolder(folder / "empty");
    bindAt("/proc", folder / "empty");
    Mounts mounts;
    EXPECT_EQ(mounts.error(), ENOENT);
    EXPECT_EQ(mounts.descriptor(), -1);
    EXPECT_THAT(mounts.table().all(), IsEmpty());
    EXPECT_FALSE(mounts.read());
    detachAt("/proc");
    EXPECT_TRUE(mounts.read());
    EXPECT_EQ(mounts.error(), 0);
    EXPECT_GE(mounts.descriptor(), 0);
    EXPECT_EQ(typeAt(mounts, folder.path()), "tmpfs");
    makeFolder(folder / "a");
    mountAt(folder / "a", "tmpfs");
    EXPECT_TRUE(isTold(mounts));
  });
}

TEST_P(MountsOf, WithoutADescriptorLeftSaySo) {
  inside([](const TemporaryDirectory& /*folder*/) {
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit none{0, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    Mounts mounts;
    EXPECT_EQ(mounts.error(), EMFILE);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
    EXPECT_TRUE(mounts.read());
    EXPECT_EQ(mounts.error(), 0);
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
      std::vector<std::string> points = pointsBelow(mounts, "/");
      std::erase_if(points, [](const std::string& point) { return point.starts_with("/proc/"); });
      EXPECT_THAT(points, ElementsAre("/m", "/proc"));
    }).join();
  });
}

}  // namespace
}  // namespace kestrine::test
