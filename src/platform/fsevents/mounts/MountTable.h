#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform::fsevents {

/// One mount, as a line of /proc/self/mountinfo tells it (proc(5)), with the escapes undone. Paths are bytes and absolute, `point` as seen
/// from the root of the process, `root` within the mounted file system.
struct Mount {
  /// The kernel gives an id again as soon as it is free.
  int id = 0;
  int parent = 0;
  /// "8:1"
  std::string device;
  /// What of the file system is mounted: "/", or another folder for a bind mount or a subvolume.
  std::string root;
  std::string point;
  /// "ext4", "fuse.sshfs"
  std::string type;
  std::string source;
  /// Stays as it is as long as the mount is there, moved or not, and differs from that of a mount which came in its place and is alike in
  /// all that the table tells: the kernel gives ids and devices a second time at once. See `Mounts::attend`. 0 in a table that was made
  /// from text alone.
  std::uint64_t serial = 0;

  friend bool operator==(const Mount&, const Mount&) = default;
};

/// The lines of /proc/self/mountinfo in their order. A line that cannot be understood is left out. Any thread.
std::vector<Mount> parseMounts(std::string_view text);

/// All mounts of a mount namespace at one time, and which of them a path leads to. A value made from text: it touches no file system, so
/// it answers for a path on a file system that hangs.
///
/// Paths are absolute, with no "." or "..", no repeated separators and none at the end. Symbolic links are taken for folders: ask about
/// resolved paths.
///
/// Threads: a value; several may ask one that none changes.
class MountTable {
 public:
  static MountTable parse(std::string_view text) { return MountTable(parseMounts(text)); }

  MountTable() = default;
  explicit MountTable(std::vector<Mount> mounts);

  /// The mount that is reached at `path`: the one whose point is nearest, at it or above; of several at one point the one on top. Nothing
  /// when no listed mount is there, as in the root of a process below which the file system's own root does not lie (chroot(2)).
  [[nodiscard]] const Mount* covering(std::string_view path) const;
  /// The mounts that are reached strictly below `path`, in the order of their points (as bytes); none that another one hides.
  [[nodiscard]] std::vector<Mount> below(std::string_view path) const;

  /// Whether this very mount is in the table, at the same place.
  [[nodiscard]] bool contains(const Mount& mount) const;

  [[nodiscard]] const std::vector<Mount>& all() const { return mounts_; }

  friend bool operator==(const MountTable& left, const MountTable& right) { return left.mounts_ == right.mounts_; }

 private:
  [[nodiscard]] const Mount* at(std::string_view point) const;

  std::vector<Mount> mounts_;
  /// Places in `mounts_` of those that a path leads to, by their points.
  std::vector<std::size_t> visible_;
  /// Places of all by their ids.
  std::vector<std::size_t> byId_;
};

}  // namespace platform::fsevents
