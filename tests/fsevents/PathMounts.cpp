#include "platform/fsevents/mounts/PathMounts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

namespace fs = std::filesystem;
using platform::fsevents::followPath;
using platform::fsevents::Mount;
using platform::fsevents::MountTable;
using platform::fsevents::PathMounts;

/// Over real folders and links, with a table of mounts that is made up: what is said to hang there does not, but nobody may look at it.
class PathMountsTest : public testing::Test {
 protected:
  PathMountsTest() {
    fs::create_directories(folder / "a/b");
    fs::create_directories(folder / "far/deep");
  }
  /// The root, and these: (point, type).
  static MountTable tableOf(const std::vector<std::pair<std::string, std::string>>& rows) {
    std::vector<Mount> mounts{{1, 0, "8:1", "/", "/", "ext4", "disk", 1}};
    for (const auto& [point, type] : rows) {
      const int id = static_cast<int>(mounts.size()) + 1;
      mounts.push_back({id, 1, "0:" + std::to_string(id), "/", point, type, "none", static_cast<std::uint64_t>(id)});
    }
    return MountTable(std::move(mounts));
  }

  TemporaryDirectory folder;
};

TEST_F(PathMountsTest, NamesTheMountsOnTheWay) {
  const auto way = followPath(tableOf({{folder / "a", "tmpfs"}, {folder / "far", "tmpfs"}}), folder / "a/b");
  EXPECT_EQ(way.real, folder / "a/b");
  EXPECT_FALSE(way.mayHang);
  ASSERT_NE(way.last(), nullptr);
  EXPECT_EQ(way.last()->point, folder / "a");
  EXPECT_EQ(way.mounts.size(), 2U);
}

TEST_F(PathMountsTest, FollowsLinksComponentByComponent) {
  fs::create_symlink("../far", folder / "a/link");
  fs::create_symlink(folder / "a/link/deep", folder / "absolute");
  const auto table = tableOf({});
  EXPECT_EQ(followPath(table, folder / "a/link/deep").real, folder / "far/deep");
  EXPECT_EQ(followPath(table, folder / "absolute").real, folder / "far/deep");
  EXPECT_EQ(followPath(table, folder / "a/./../a//b").real, folder / "a/b");
  EXPECT_EQ(followPath(table, folder / "a/missing/x").real, folder / "a/missing/x");
}

TEST_F(PathMountsTest, StopsBeforeWhatMayHang) {
  // Were it looked at, the link inside would be followed.
  fs::create_symlink("deep", folder / "far/link");
  fs::create_symlink("far", folder / "near");
  for (const auto* const type : {"nfs4", "fuse.sshfs", "autofs"}) {
    const auto table = tableOf({{folder / "far", type}});
    for (const auto* const path : {"far/link", "near/link"}) {
      const auto way = followPath(table, folder / path);
      EXPECT_TRUE(way.mayHang) << type << " " << path;
      EXPECT_EQ(way.real, folder / "far/link") << type << " " << path;
    }
    EXPECT_FALSE(followPath(table, folder / "a/b").mayHang) << type;
  }
}

TEST_F(PathMountsTest, SeesALinkThatALocalMountBrings) {
  fs::create_symlink("deep", folder / "far/link");
  const auto way = followPath(tableOf({{folder / "far", "tmpfs"}}), folder / "far/link");
  EXPECT_EQ(way.real, folder / "far/deep");
}

TEST_F(PathMountsTest, KnowsThePlacesThatAMountWouldChangeIt) {
  fs::create_symlink("../far", folder / "a/link");
  const auto way = followPath(tableOf({}), folder / "a/link/deep");
  for (const std::string& place : {std::string("/"), folder.path(), folder / "a", folder / "a/link", folder / "far", folder / "far/deep"}) {
    EXPECT_TRUE(way.places.contains(place)) << place;
  }
  EXPECT_FALSE(way.places.contains(folder / "a/b"));
}

TEST_F(PathMountsTest, GivesUpOnLinksThatGoRoundInACircle) {
  fs::create_symlink("circle", folder / "circle");
  EXPECT_FALSE(followPath(tableOf({}), folder / "circle/x").mayHang);
}

TEST(PathMounts, TellsMountsApartByTheirSerials) {
  Mount one{5, 1, "0:5", "/", "/a", "tmpfs", "none", 77};
  Mount moved = one;
  moved.point = "/b";
  Mount another = one;
  another.serial = 78;
  EXPECT_TRUE(platform::fsevents::isSameMount(one, moved));
  EXPECT_FALSE(platform::fsevents::isSameMount(one, another));
  // Where the kernel tells no serials the rest must do.
  one.serial = another.serial = 0;
  EXPECT_TRUE(platform::fsevents::isSameMount(one, another));
  another.device = "0:6";
  EXPECT_FALSE(platform::fsevents::isSameMount(one, another));
}

}  // namespace
}  // namespace kestrine::test
