#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "tests/fsevents/support/MountsTest.h"
#include "tests/support/KernelFilter.h"

// Something that is mounted in the place of something that was alike, between two looks at the table.

namespace kestrine::test {
namespace {

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

class MountsReplaced : public MountsTest {};
KESTRINE_PER_RIGHTS(MountsReplaced);

TEST_P(MountsReplaced, ThatAreReplacedBetweenTwoLooksAreSeenToBeOthers) {
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

TEST_P(MountsReplaced, ThatAreReplacedAreSeenToBeOthersWithoutSerialsToo) {
  inside([](const TemporaryDirectory& folder) {
    withoutSerials([&folder] {
      makeFolder(folder / "a");
      makeFolder(folder / "b");
      mountAt(folder / "a", "tmpfs");
      mountAt(folder / "b", "tmpfs");
      Mounts mounts;
      const auto at = [&](const char* name) { return *mounts.table().covering(folder / name); };
      EXPECT_EQ(mounts.attend({at("a"), at("b")}), 0);
      // Numbers are given out for the whole machine, so that somebody else may get the one that was just given back.
      int alike = 0;
      for (int round = 0; round < 200 && alike < 3; ++round) {
        const Mount before = at("a");
        const Mount other = at("b");
        unmountAt(folder / "a");
        mountAt(folder / "a", "tmpfs");
        EXPECT_TRUE(mounts.read());
        EXPECT_NE(at("a"), before);
        alike += at("a").id == before.id && at("a").device == before.device ? 1 : 0;
        EXPECT_EQ(at("b"), other);
        EXPECT_FALSE(mounts.read());
        EXPECT_EQ(mounts.attend({at("a"), at("b")}), 0);
      }
      EXPECT_GT(alike, 0);
    });
  });
}

TEST_P(MountsReplaced, WithoutSerialsAreNotTakenForOthersWhileTheyStand) {
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
      // Its file system lives on, and with it all that is watched there. Somebody else on the machine may get the number meanwhile.
      const auto bound = [&] { return *mounts.table().covering(folder / "a bind"); };
      bool isAlike = false;
      for (int round = 0; round < 200 && !isAlike; ++round) {
        const Mount former = bound();
        unmountAt(folder / "a bind");
        bindAt(folder / "a bind", folder / "a");
        const bool differs = mounts.read();
        isAlike = bound().id == former.id;
        EXPECT_NE(differs, isAlike);
        EXPECT_EQ(mounts.attend({*mounts.table().covering(folder / "a"), bound()}), 0);
      }
      EXPECT_TRUE(isAlike);
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

TEST_P(MountsReplaced, WithoutSerialsAreToldApartAndStayTheSameWhenTheyMove) {
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

TEST_P(MountsReplaced, WithoutSerialsAreNotHeldBusyByTheirWitness) {
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

TEST_P(MountsReplaced, WithoutSerialsAndWithoutAWitnessSaySo) {
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

}  // namespace
}  // namespace kestrine::test
