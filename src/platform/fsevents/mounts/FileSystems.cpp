#include "platform/fsevents/mounts/FileSystems.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace platform::fsevents {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using enum FileSystemKind;

/// Times are taken from a clock that moves once a tick, and some kernels tick a hundred times a second.
constexpr nanoseconds kTick = milliseconds(10);
/// What the coarsest of the known ones, FAT, keeps. The time that is cut down to it comes from the same clock.
constexpr nanoseconds kCoarsest = seconds(2) + kTick;
/// Inodes of 128 bytes, which mkfs made for small or old ones, have room for whole seconds only.
constexpr nanoseconds kWholeSeconds = seconds(1) + kTick;

struct Type {
  std::string_view name;
  FileSystemPolicy policy;
};

constexpr FileSystemPolicy kUnknown{Local, false, false, kCoarsest};
constexpr FileSystemPolicy kFuse{Fuse, false, false, kCoarsest};

constexpr Type kPrecise[] = {
    // NOLINT(modernize-avoid-c-arrays): a table
    {"ext2", {Local, true, true, kWholeSeconds}},
    {"ext3", {Local, true, true, kWholeSeconds}},
    {"ext4", {Local, true, true, kWholeSeconds}},
    {"xfs", {Local, true, true, kTick}},
    {"btrfs", {Local, false, true, kTick}},
    {"tmpfs", {Local, true, true, kTick}},
    {"ramfs", {Local, true, true, kTick}},
    // Passes on what its upper layer, often an ext4, has.
    {"overlay", {Local, false, true, kWholeSeconds}},
};

/// Others write, be it on another machine or beneath the virtual one; "afs" to "virtiofs".
constexpr std::string_view kNetwork[] = {
    // NOLINT(modernize-avoid-c-arrays): a table
    "9p",   "acfs",  "afs",      "beegfs", "ceph",   "cifs",  "coda", "gfs2",  "gpfs",   "lustre",   "ncpfs",  "nfs",
    "nfs4", "ocfs2", "orangefs", "panfs",  "prl_fs", "pvfs2", "smb3", "smbfs", "vboxsf", "virtiofs", "vmhgfs",
};

constexpr std::string_view kPseudo[] = {
    // NOLINT(modernize-avoid-c-arrays): a table
    "binder",      "binfmt_misc", "bpf",        "cgroup",  "cgroup2",   "configfs", "cpuset",     "debugfs",
    "devpts",      "efivarfs",    "functionfs", "fusectl", "hugetlbfs", "mqueue",   "nfsd",       "nsfs",
    "ocfs2_dlmfs", "openpromfs",  "pipefs",     "proc",    "pstore",    "resctrl",  "rpc_pipefs", "securityfs",
    "selinuxfs",   "smackfs",     "sockfs",     "spufs",   "sysfs",     "tracefs",  "usbfs",      "xenfs",
};

template <std::size_t N>
bool contains(const std::string_view (&names)[N], std::string_view name) {  // NOLINT(modernize-avoid-c-arrays)
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

}  // namespace

FileSystemPolicy policyOf(const Mount& mount) {
  // What follows the point is the word of the program behind it: "fuse.sshfs".
  const std::string_view type = std::string_view(mount.type).substr(0, mount.type.find('.'));
  if (type == "fuse" || type == "fuseblk") return kFuse;
  for (const Type& row : kPrecise) {
    if (row.name == type) return row.policy;
  }
  if (contains(kNetwork, type)) return {Network, false, false, kCoarsest};
  if (contains(kPseudo, type)) return {Pseudo, false, false, kCoarsest};
  if (type == "autofs") return {Automount, false, false, kCoarsest};
  return kUnknown;
}

FileSystemPolicy policyOf(const Mount* mount) { return mount != nullptr ? policyOf(*mount) : kUnknown; }

}  // namespace platform::fsevents
