#include "platform/fsevents/mounts/MountTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestrine::test {
namespace {

using platform::fsevents::Mount;
using platform::fsevents::MountTable;
using testing::ElementsAre;
using testing::IsEmpty;

/// Lines of mountinfo of mounts of which only number, parent, point and type matter: "27 1 / ext4".
std::string table(const std::vector<std::string>& mounts) {
  std::string text;
  for (const std::string& mount : mounts) {
    const std::size_t point = mount.find('/');
    const std::size_t type = mount.rfind(' ');
    text += mount.substr(0, point) + "0:1 / " + mount.substr(point, type - point) + " rw,relatime -" + mount.substr(type) + " none rw\n";
  }
  return text;
}

int idCovering(const MountTable& mounts, const std::string& path) {
  const Mount* const mount = mounts.covering(path);
  return mount == nullptr ? 0 : mount->id;
}

std::vector<std::string> pointsBelow(const MountTable& mounts, const std::string& path) {
  std::vector<std::string> points;
  for (const Mount& mount : mounts.below(path)) points.push_back(std::to_string(mount.id) + mount.point);
  return points;
}

TEST(MountTable, ReadsEveryField) {
  const MountTable mounts = MountTable::parse("36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue\n");
  ASSERT_EQ(mounts.all().size(), 1U);
  EXPECT_EQ(mounts.all()[0], (Mount{36, 35, "98:0", "/mnt1", "/mnt2", "ext3", "/dev/root"}));
}

TEST(MountTable, ReadsLinesWithAnyNumberOfOptionalFields) {
  const MountTable mounts = MountTable::parse(
      "1 0 0:1 / / rw - ext4 a rw\n"
      "2 1 0:2 / /b rw shared:7 - xfs b rw\n"
      "3 1 0:3 / /c rw shared:7 master:3 propagate_from:2 unbindable something:else - tmpfs c rw\n");
  ASSERT_EQ(mounts.all().size(), 3U);
  EXPECT_EQ(mounts.all()[0].type, "ext4");
  EXPECT_EQ(mounts.all()[1].type, "xfs");
  EXPECT_EQ(mounts.all()[2].type, "tmpfs");
  EXPECT_EQ(mounts.all()[2].source, "c");
}

TEST(MountTable, UndoesEscapes) {
  const MountTable mounts = MountTable::parse(
      "1 0 0:1 /a\\134b /with\\040blank\\011tab\\012line\\134040 rw - fuse.my\\040fs host:\\043dir\\040x rw\n"
      // What the kernel never writes stays as it is.
      "2 1 0:1 / /\\9\\07 rw - tmpfs \\ rw\n");
  ASSERT_EQ(mounts.all().size(), 2U);
  EXPECT_EQ(mounts.all()[0].root, "/a\\b");
  EXPECT_EQ(mounts.all()[0].point, "/with blank\ttab\nline\\040");
  EXPECT_EQ(mounts.all()[0].type, "fuse.my fs");
  EXPECT_EQ(mounts.all()[0].source, "host:#dir x");
  EXPECT_EQ(mounts.all()[1].point, "/\\9\\07");
  EXPECT_EQ(mounts.all()[1].source, "\\");
}

TEST(MountTable, KeepsNamesThatAreNoText) {
  const MountTable mounts = MountTable::parse("1 0 0:1 / / rw - ext4 a rw\n2 1 0:2 / /\xff\xfe/\xc3( rw - tmpfs b rw\n");
  EXPECT_EQ(idCovering(mounts, "/\xff\xfe/\xc3(/below"), 2);
}

TEST(MountTable, TakesASourceWithoutAName) {
  const MountTable mounts = MountTable::parse("1 0 0:1 / / rw - tmpfs  rw,size=1k\n");
  ASSERT_EQ(mounts.all().size(), 1U);
  EXPECT_EQ(mounts.all()[0].source, "");
}

TEST(MountTable, LeavesOutWhatItCannotUnderstand) {
  const MountTable mounts = MountTable::parse(
      "\n"
      "x 0 0:1 / /no/number rw - tmpfs a rw\n"
      "1x 0 0:1 / /half/a/number rw - tmpfs a rw\n"
      "1 0\n"
      "1 0 0:1 / /no/separator rw shared:1\n"
      "1 0 0:1 / /no/type rw -\n"
      "1 0 0:1 / relative rw - tmpfs a rw\n"
      "99999999999999 0 0:1 / /too/large rw - tmpfs a rw\n"
      "7 1 0:1 / /good rw - tmpfs a rw");
  ASSERT_EQ(mounts.all().size(), 1U);
  EXPECT_EQ(mounts.all()[0].point, "/good");
}

TEST(MountTable, OfNothingIsEmpty) {
  EXPECT_THAT(MountTable::parse("").all(), IsEmpty());
  EXPECT_EQ(MountTable().covering("/a"), nullptr);
  EXPECT_THAT(MountTable().below("/"), IsEmpty());
}

TEST(MountTable, FindsTheNearestMountAtOrAboveAPath) {
  const MountTable mounts = MountTable::parse(table({"1 0 / ext4", "2 1 /home xfs", "3 2 /home/a/b tmpfs"}));
  EXPECT_EQ(idCovering(mounts, "/"), 1);
  EXPECT_EQ(idCovering(mounts, "/usr/bin"), 1);
  EXPECT_EQ(idCovering(mounts, "/home"), 2);
  EXPECT_EQ(idCovering(mounts, "/homes"), 1);
  EXPECT_EQ(idCovering(mounts, "/home/a"), 2);
  EXPECT_EQ(idCovering(mounts, "/home/a/b"), 3);
  EXPECT_EQ(idCovering(mounts, "/home/a/b/c/d"), 3);
  EXPECT_EQ(idCovering(mounts, "/home/a/bc"), 2);
}

TEST(MountTable, ListsWhatIsStrictlyBelowInTheOrderOfThePoints) {
  const MountTable mounts =
      MountTable::parse(table({"1 0 / ext4", "5 1 /b tmpfs", "6 1 /a tmpfs", "7 6 /a/z tmpfs", "8 6 /a/c tmpfs", "9 1 /a-b tmpfs"}));
  EXPECT_THAT(pointsBelow(mounts, "/"), ElementsAre("6/a", "9/a-b", "8/a/c", "7/a/z", "5/b"));
  EXPECT_THAT(pointsBelow(mounts, "/a"), ElementsAre("8/a/c", "7/a/z"));
  EXPECT_THAT(pointsBelow(mounts, "/a/c"), IsEmpty());
  EXPECT_THAT(pointsBelow(mounts, "/none"), IsEmpty());
}

TEST(MountTable, OfSeveralAtOnePointTakesTheOneOnTop) {
  // The table's order does not matter: what is on top is mounted upon the other.
  const MountTable mounts = MountTable::parse(table({"1 0 / ext4", "9 7 /m xfs", "7 5 /m tmpfs", "5 1 /m autofs", "6 5 /m/x tmpfs"}));
  EXPECT_EQ(idCovering(mounts, "/m"), 9);
  EXPECT_EQ(idCovering(mounts, "/m/x"), 9);
  EXPECT_THAT(pointsBelow(mounts, "/"), ElementsAre("9/m"));
}

TEST(MountTable, LeavesOutWhatALaterMountHides) {
  // "/a/b" with a mount in it, then something over "/a" that has a "/a/b" and a mount upon that of its own.
  const MountTable mounts =
      MountTable::parse(table({"1 0 / ext4", "2 1 /a/b tmpfs", "3 2 /a/b/c tmpfs", "4 1 /a xfs", "5 4 /a/b/d tmpfs"}));
  EXPECT_EQ(idCovering(mounts, "/a/b"), 4);
  EXPECT_EQ(idCovering(mounts, "/a/b/c"), 4);
  EXPECT_EQ(idCovering(mounts, "/a/b/d/e"), 5);
  EXPECT_THAT(pointsBelow(mounts, "/"), ElementsAre("4/a", "5/a/b/d"));
  EXPECT_THAT(pointsBelow(mounts, "/a"), ElementsAre("5/a/b/d"));
}

TEST(MountTable, DoesNotTakeANeighbourForSomethingThatHides) {
  const MountTable mounts = MountTable::parse(table({"1 0 / ext4", "2 1 /a tmpfs", "3 1 /a-b/c tmpfs", "4 1 /ab tmpfs", "5 1 /a.b tmpfs"}));
  EXPECT_THAT(pointsBelow(mounts, "/"), ElementsAre("2/a", "3/a-b/c", "5/a.b", "4/ab"));
}

TEST(MountTable, StaysBelowAMountUponItsOwnRoot) {
  // What is mounted upon "/" is reached by no path of a process that has it as its root.
  const MountTable mounts = MountTable::parse(table({"1 0 / ext4", "2 1 / tmpfs", "3 1 /a tmpfs", "4 2 /b tmpfs"}));
  EXPECT_EQ(idCovering(mounts, "/"), 1);
  EXPECT_EQ(idCovering(mounts, "/a/x"), 3);
  EXPECT_EQ(idCovering(mounts, "/b"), 1);
  EXPECT_THAT(pointsBelow(mounts, "/"), ElementsAre("3/a"));
}

TEST(MountTable, KnowsTheRootOfANamespaceAsItsOwnParent) {
  const MountTable mounts = MountTable::parse(table({"1 1 / rootfs", "2 1 /a tmpfs"}));
  EXPECT_EQ(idCovering(mounts, "/x"), 1);
  EXPECT_EQ(idCovering(mounts, "/a"), 2);
}

TEST(MountTable, OfAProcessWhoseRootIsAFolderNamesNoMountForIt) {
  // The table of such a process begins below its root; the mount that the root lies on is not in it.
  const MountTable mounts = MountTable::parse(table({"31 27 /proc proc", "32 27 /srv tmpfs", "33 32 /srv/a xfs"}));
  EXPECT_EQ(mounts.covering("/"), nullptr);
  EXPECT_EQ(mounts.covering("/home"), nullptr);
  EXPECT_EQ(idCovering(mounts, "/srv/b"), 32);
  EXPECT_THAT(pointsBelow(mounts, "/"), ElementsAre("31/proc", "32/srv", "33/srv/a"));
}

TEST(MountTable, OfMountsThatAreEachOthersParentsEnds) {
  const MountTable mounts = MountTable::parse(table({"1 0 / ext4", "2 3 /a tmpfs", "3 2 /a tmpfs", "4 4 /b tmpfs"}));
  EXPECT_EQ(idCovering(mounts, "/a"), 1);
  EXPECT_EQ(mounts.all().size(), 4U);
}

TEST(MountTable, OfManyMountsIsReadAtOnce) {
  // Quadratic work upon so many would not end within the test's patience.
  constexpr int kMounts = 100'000;
  std::vector<std::string> lines = {"1 0 / ext4"};
  for (int i = 2; i < kMounts; ++i)
    lines.push_back(std::to_string(i) + " " + std::to_string(i % 2 == 0 ? 1 : i - 1) + " /m" + std::to_string(i - i % 2) +
                    (i % 2 == 0 ? "" : "/x") + " tmpfs");
  const MountTable mounts = MountTable::parse(table(lines));
  EXPECT_EQ(mounts.below("/").size(), static_cast<std::size_t>(kMounts - 2));
  EXPECT_EQ(idCovering(mounts, "/m77776/x/y"), 77777);
  EXPECT_EQ(idCovering(mounts, "/m77776/y"), 77776);
}

TEST(MountTable, ContainsAMountOnlyAsItIs) {
  const MountTable mounts = MountTable::parse(table({"9 0 / ext4", "2 9 /a tmpfs", "30 9 /b tmpfs"}));
  for (const Mount& mount : mounts.all()) EXPECT_TRUE(mounts.contains(mount)) << mount.point;
  Mount other = mounts.all()[1];
  other.point = "/elsewhere";
  EXPECT_FALSE(mounts.contains(other));
  other = mounts.all()[1];
  other.serial = 5;
  EXPECT_FALSE(mounts.contains(other));
  other = mounts.all()[1];
  other.id = 3;
  EXPECT_FALSE(mounts.contains(other));
  EXPECT_FALSE(MountTable().contains(mounts.all()[0]));
}

TEST(MountTable, DiffersByTheSerialNumberAlone) {
  Mount mount{36, 35, "98:0", "/", "/mnt", "tmpfs", "none", 7};
  const MountTable before({mount});
  mount.serial = 8;
  EXPECT_NE(before, MountTable({mount}));
}

}  // namespace
}  // namespace kestrine::test
