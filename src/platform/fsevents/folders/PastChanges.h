#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>

#include "platform/fsevents/event/FSEventStreamTypes.h"
#include "platform/fsevents/mounts/FileSystems.h"

namespace platform::fsevents {

/// What the times of files and folders (statx(2)) tell of the time since a moment of the past. Told too often rather than too seldom: an
/// item is told when its change time is not before that moment, and whatever could have come from elsewhere in a folder whose entries have
/// changed is told as renamed. Removals have no times of their own: the folder that held the item is told as modified.
/// A value; any thread.
class PastChanges {
 public:
  /// `since` in milliseconds since 1970; `slack` is how much earlier a change may be stamped than it is told.
  PastChanges(std::uint64_t since, std::chrono::nanoseconds slack, const FileSystemPolicy& policy);

  /// Change times lie before identifiers that were given out long before the change was told: the kernel stamps a write when it begins and
  /// tells it when it ends. This much is allowed for where an identifier of the past is read.
  static constexpr std::chrono::seconds kSlack{60};
  /// What is asked of statx(2).
  static constexpr unsigned kMask = STATX_TYPE | STATX_MODE | STATX_CTIME | STATX_MTIME | STATX_BTIME;

  /// Whether entries of the folder have come, gone or changed their names.
  [[nodiscard]] bool entriesChanged(const struct statx& folder) const { return isSince(folder.stx_mtime); }
  /// What to tell of an item; 0 when it is as it was. `amongChanged` tells whether the entries of the folder that holds it have changed.
  [[nodiscard]] FSEventStreamEventFlags of(const struct statx& item, bool amongChanged) const;

 private:
  [[nodiscard]] bool isSince(const statx_timestamp& time) const;

  std::int64_t since_;
  bool stampsRenames_;
};

}  // namespace platform::fsevents
