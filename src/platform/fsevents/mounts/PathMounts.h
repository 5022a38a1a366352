#pragma once

#include <set>
#include <string>
#include <vector>

#include "platform/fsevents/mounts/MountTable.h"

namespace platform::fsevents {

/// Where a path leads, and through which mounts.
struct PathMounts {
  /// The path with its symbolic links resolved, as far as could be followed; what is beyond that as text.
  std::string real;
  /// The mounts on the way, the links' own ways included, in order and each once.
  std::vector<Mount> mounts;
  /// The places that were looked at on the way: a mount at another place, and not below `real`, is none of the path's business.
  std::set<std::string> places;
  /// The way leads onto a file system that may hang, or that only mounts something when it is looked into.
  bool mayHang = false;

  /// The mount that the path lies on; null where none is known.
  [[nodiscard]] const Mount* last() const { return mounts.empty() ? nullptr : &mounts.back(); }
};

/// Follows an absolute path component by component, and stops in front of the first mount that may hang: that and everything below it is
/// not touched, so this answers for a path on a file system that does not. Any thread.
PathMounts followPath(const MountTable& table, const std::string& path);

/// Whether both are one mount, perhaps at another place or with other options meanwhile.
bool isSameMount(const Mount& one, const Mount& other);
bool contains(const MountTable& table, const Mount& mount);

}  // namespace platform::fsevents
