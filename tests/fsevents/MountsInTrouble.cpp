#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "tests/fsevents/support/MountsTest.h"

// A table that is long, changes while it is read, or cannot be read.

namespace kestrine::test {
namespace {

using testing::IsEmpty;

class MountsInTrouble : public MountsTest {};
KESTRINE_PER_RIGHTS(MountsInTrouble);

TEST_P(MountsInTrouble, InThousandsAreReadWhole) {
  inside([](const TemporaryDirectory& folder) {
    makeFolder(folder / "a");
    mountAt(folder / "a", "tmpfs");
    Mounts mounts;
    std::vector<std::string> expected = bindMany(1500, folder.path(), folder / "a");
    expected.insert(expected.begin(), folder / "a");
    EXPECT_TRUE(isTold(mounts));
    EXPECT_FALSE(isTold(mounts)) << "one notice for all";
    EXPECT_TRUE(mounts.read());
    EXPECT_EQ(pointsSeenBelow(mounts, folder.path()), expected);
  });
}

TEST_P(MountsInTrouble, ThatStandStillAreNeverMissedWhileOthersComeAndGo) {
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
      std::vector<std::string> points = pointsSeenBelow(mounts, folder.path());
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
    EXPECT_EQ(pointsSeenBelow(mounts, folder.path()).size(), standing.size() + 1);
    EXPECT_EQ(standingNow(), standing);
    EXPECT_FALSE(mounts.read());
  });
}

TEST_P(MountsInTrouble, ThatReplaceOneAnotherAreNeverSeenTogether) {
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

TEST_P(MountsInTrouble, AreKnownAsTheyWereWhileTheTableCannotBeRead) {
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

TEST_P(MountsInTrouble, WithoutATableSaySoAndFindItWhenItIsThere) {
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

TEST_P(MountsInTrouble, WithoutADescriptorLeftSaySo) {
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

}  // namespace
}  // namespace kestrine::test
