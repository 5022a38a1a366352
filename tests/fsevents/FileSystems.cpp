#include "platform/fsevents/mounts/FileSystems.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

namespace kestrine::test {
namespace {

using namespace std::chrono_literals;
using platform::fsevents::FileSystemKind;
using platform::fsevents::FileSystemPolicy;
using platform::fsevents::Mount;
using platform::fsevents::policyOf;

FileSystemPolicy ofType(const std::string& type) { return policyOf(Mount{1, 0, "0:1", "/", "/m", type, "none"}); }

struct Expected {
  std::string type;
  FileSystemKind kind;
  bool foreign;
  bool entered;
};

// Typed a second time: what a type is decides whether a stream looks at it at all.
const std::vector<Expected> kKinds = {
    {"ext4", FileSystemKind::Local, false, true},         {"xfs", FileSystemKind::Local, false, true},
    {"btrfs", FileSystemKind::Local, false, true},        {"f2fs", FileSystemKind::Local, false, true},
    {"vfat", FileSystemKind::Local, false, true},         {"exfat", FileSystemKind::Local, false, true},
    {"ntfs3", FileSystemKind::Local, false, true},        {"tmpfs", FileSystemKind::Local, false, true},
    {"ramfs", FileSystemKind::Local, false, true},        {"devtmpfs", FileSystemKind::Local, false, true},
    {"overlay", FileSystemKind::Local, false, true},      {"ecryptfs", FileSystemKind::Local, false, true},
    {"squashfs", FileSystemKind::Local, false, true},     {"a type that nobody has heard of", FileSystemKind::Local, false, true},
    {"nfs", FileSystemKind::Network, true, true},         {"nfs4", FileSystemKind::Network, true, true},
    {"cifs", FileSystemKind::Network, true, true},        {"smb3", FileSystemKind::Network, true, true},
    {"9p", FileSystemKind::Network, true, true},          {"ceph", FileSystemKind::Network, true, true},
    {"afs", FileSystemKind::Network, true, true},         {"coda", FileSystemKind::Network, true, true},
    {"lustre", FileSystemKind::Network, true, true},      {"gfs2", FileSystemKind::Network, true, true},
    {"ocfs2", FileSystemKind::Network, true, true},       {"vboxsf", FileSystemKind::Network, true, true},
    {"virtiofs", FileSystemKind::Network, true, true},    {"fuse", FileSystemKind::Fuse, true, true},
    {"fuse.sshfs", FileSystemKind::Fuse, true, true},     {"fuse.", FileSystemKind::Fuse, true, true},
    {"fuseblk", FileSystemKind::Fuse, true, true},        {"fuseblk.ntfs", FileSystemKind::Fuse, true, true},
    {"fused", FileSystemKind::Local, false, true},        {"fusectl", FileSystemKind::Pseudo, false, false},
    {"proc", FileSystemKind::Pseudo, false, false},       {"sysfs", FileSystemKind::Pseudo, false, false},
    {"devpts", FileSystemKind::Pseudo, false, false},     {"cgroup", FileSystemKind::Pseudo, false, false},
    {"cgroup2", FileSystemKind::Pseudo, false, false},    {"debugfs", FileSystemKind::Pseudo, false, false},
    {"tracefs", FileSystemKind::Pseudo, false, false},    {"securityfs", FileSystemKind::Pseudo, false, false},
    {"selinuxfs", FileSystemKind::Pseudo, false, false},  {"pstore", FileSystemKind::Pseudo, false, false},
    {"bpf", FileSystemKind::Pseudo, false, false},        {"configfs", FileSystemKind::Pseudo, false, false},
    {"efivarfs", FileSystemKind::Pseudo, false, false},   {"mqueue", FileSystemKind::Pseudo, false, false},
    {"hugetlbfs", FileSystemKind::Pseudo, false, false},  {"binfmt_misc", FileSystemKind::Pseudo, false, false},
    {"rpc_pipefs", FileSystemKind::Pseudo, false, false}, {"nfsd", FileSystemKind::Pseudo, false, false},
    {"nsfs", FileSystemKind::Pseudo, false, false},       {"autofs", FileSystemKind::Automount, false, false},
};

TEST(FileSystems, AreOfTheKindThatTheirTypeSays) {
  for (const Expected& row : kKinds) {
    const FileSystemPolicy policy = ofType(row.type);
    EXPECT_EQ(policy.kind, row.kind) << row.type;
    EXPECT_EQ(policy.isForeign(), row.foreign) << row.type;
    EXPECT_EQ(policy.isEntered(), row.entered) << row.type;
  }
}

TEST(FileSystems, AreTrustedToCountLinksOnlyWhereThatIsKnown) {
  for (const char* const type : {"ext2", "ext3", "ext4", "xfs", "tmpfs", "ramfs"}) EXPECT_TRUE(ofType(type).countsLinks) << type;
  for (const char* const type : {"btrfs", "overlay", "vfat", "exfat", "ntfs3", "fuse", "fuseblk", "nfs", "virtiofs", "f2fs", "unheard-of"})
    EXPECT_FALSE(ofType(type).countsLinks) << type;
}

TEST(FileSystems, AreTrustedToStampRenamesOnlyWhereThatIsKnown) {
  for (const char* const type : {"ext4", "xfs", "btrfs", "tmpfs"}) EXPECT_TRUE(ofType(type).stampsRenames) << type;
  for (const char* const type : {"vfat", "exfat", "fuse.sshfs", "nfs4", "unheard-of"}) EXPECT_FALSE(ofType(type).stampsRenames) << type;
}

TEST(FileSystems, AreNotTakenForMorePreciseThanTheyMayBe) {
  for (const char* const type : {"vfat", "exfat", "fuse", "nfs", "cifs", "unheard-of"}) EXPECT_EQ(ofType(type).timeStep, 2010ms) << type;
  for (const char* const type : {"ext2", "ext3", "ext4", "overlay"}) EXPECT_EQ(ofType(type).timeStep, 1010ms) << type;
  for (const char* const type : {"xfs", "btrfs", "tmpfs"}) EXPECT_EQ(ofType(type).timeStep, 10ms) << type;
}

TEST(FileSystems, ThatTheTableDoesNotNameAreOfUnknownType) {
  const FileSystemPolicy policy = policyOf(nullptr);
  EXPECT_EQ(policy.kind, FileSystemKind::Local);
  EXPECT_FALSE(policy.countsLinks);
  EXPECT_FALSE(policy.stampsRenames);
  EXPECT_EQ(policy.timeStep, 2010ms);
}

}  // namespace
}  // namespace kestrine::test
