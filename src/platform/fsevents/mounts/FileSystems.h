#pragma once

#include <chrono>

#include "platform/fsevents/mounts/MountTable.h"

namespace platform::fsevents {

enum class FileSystemKind {
  /// On a disk or in the memory of this machine.
  Local,
  /// Others may write to it unseen by this kernel, and it may hang for as long as a machine or a line is down.
  Network,
  /// A program of this machine answers for it: it may change it unseen by the kernel, hang or die.
  Fuse,
  /// What the kernel says about itself in the form of files: nothing to be watched.
  Pseudo,
  /// Looking into it mounts something.
  Automount,
};

/// What holds for all of a mounted file system, by its type. Where a type is not known, or not always the same, that is said which costs
/// work and never that which costs a change.
struct FileSystemPolicy {
  FileSystemKind kind;
  /// A folder whose link count is exactly 2 has no subfolder.
  bool countsLinks;
  /// The change time of a folder moves when the folder itself is renamed.
  bool stampsRenames;
  /// Two changes that are further apart than this have different times.
  std::chrono::nanoseconds timeStep;

  /// Served by an engine of its own and polled beside its marks.
  [[nodiscard]] bool isForeign() const { return kind == FileSystemKind::Network || kind == FileSystemKind::Fuse; }
  /// Watched at all.
  [[nodiscard]] bool isEntered() const { return kind != FileSystemKind::Pseudo && kind != FileSystemKind::Automount; }
};

/// Any thread.
FileSystemPolicy policyOf(const Mount& mount);
/// The same where the table of mounts names none (`MountTable::covering`): that of an unknown type.
FileSystemPolicy policyOf(const Mount* mount);

}  // namespace platform::fsevents
