#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/fsevents/mounts/MountTable.h"

namespace platform::fsevents {

/// Tells a mount from what took its place between two looks, on kernels that number mounts anew (see `Mount::serial`). What looks the same
/// in the table has the same device, and a device is free for another file system only when the former is no more; of that inotify tells
/// every watch on it first. So one watch on the root of each mount that matters is enough.
///
/// It holds no mount busy, and wakes nobody: it is asked when the table is read.
///
/// Threads: owned and used by one thread.
class MountWitnesses {
 public:
  /// Exactly these have a witness from now on. Looks at each place, so a file system that hangs holds this up. Returns 0, or errno of the
  /// first that could have none (EACCES where its root may not be read).
  int attend(const std::vector<Mount>& mounts);

  /// Finds out which file systems have gone since the last look.
  void look();

  /// Another number each time that the file system of this mount was seen to have gone.
  [[nodiscard]] std::uint64_t generationOf(int mount) const;

 private:
  int add(const Mount& mount);
  void gone(int watch);

  FileHandle queue_;
  /// By the ids of the mounts. Mounts of one file system may share a watch.
  std::map<int, int> watches_;
  std::map<int, std::uint64_t> generations_;
  std::uint64_t last_ = 0;
};

}  // namespace platform::fsevents
