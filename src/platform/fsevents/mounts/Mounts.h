#pragma once

#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/fsevents/mounts/MountSerials.h"
#include "platform/fsevents/mounts/MountTable.h"
#include "platform/fsevents/mounts/MountWitnesses.h"

namespace platform::fsevents {

/// The mounts of this process's mount namespace, and a descriptor that says when they change. Waiting costs nothing. It touches no mounted
/// file system but the one at /proc.
///
/// The kernel does not say when a folder above a mount point is renamed: whoever learns of such a rename reads the table again.
///
/// Threads: owned and used by one thread.
class Mounts {
 public:
  /// Reads the table for the first time.
  Mounts();

  /// To be waited on for POLLPRI (nothing else: it is always readable), which is told once for each change, or for several together, to the
  /// first who waits: `read` must follow. -1 while the table cannot be opened.
  [[nodiscard]] int descriptor() const { return file_.fileDescriptor(); }

  /// Reads the table anew, and again when it changed meanwhile. True when it differs from the last.
  /// A table that never stands still is taken as it is after some attempts; the descriptor then tells that there is more.
  bool read();

  /// The mounts that folders are to be watched on, before they are: if one of them goes and another comes in its place between two
  /// readings, the table will differ (by `Mount::serial`). Where the kernel numbers mounts for ever that is so for all of them, and this
  /// does nothing; else it looks at each place once, so a file system that hangs holds this up. Returns 0, or errno where one cannot be
  /// told apart (no queue or watch left; EACCES where its root may not be read).
  int attend(const std::vector<Mount>& mounts);

  /// The last that could be read: empty when none could.
  [[nodiscard]] const MountTable& table() const { return table_; }

  /// 0, or the errno of the last attempt to read the table (no /proc, no descriptor left). Nothing is known then of what has been mounted
  /// since, and nothing will be told of it: the owner says so, and calls `read` from time to time.
  [[nodiscard]] int error() const { return error_; }

 private:
  [[nodiscard]] bool changedSinceAsked() const;
  bool readOnce(std::vector<Mount>& mounts);

  FileHandle file_;
  MountSerials serials_;
  bool hasSerials_ = false;
  MountWitnesses witnesses_;
  MountTable table_;
  int error_ = 0;
};

}  // namespace platform::fsevents
