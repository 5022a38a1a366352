#include "platform/fsevents/folders/PastChanges.h"

namespace platform::fsevents {

PastChanges::PastChanges(std::uint64_t since, std::chrono::nanoseconds slack, const FileSystemPolicy& policy)
    : since_(static_cast<std::int64_t>(since) * 1'000'000 - slack.count() - policy.timeStep.count()),
      stampsRenames_(policy.stampsRenames) {}

bool PastChanges::isSince(const statx_timestamp& time) const {
  // Seconds first: a broken time of a far year would not fit into nanoseconds.
  constexpr std::int64_t kSecond = 1'000'000'000;
  if (time.tv_sec != since_ / kSecond) return time.tv_sec > since_ / kSecond;
  return static_cast<std::int64_t>(time.tv_nsec) >= since_ % kSecond;
}

FSEventStreamEventFlags PastChanges::of(const struct statx& item, bool amongChanged) const {
  const bool isFolder = S_ISDIR(item.stx_mode);
  const bool isChanged = isSince(item.stx_ctime);
  const bool isNew = (item.stx_mask & STATX_BTIME) != 0 && isSince(item.stx_btime);
  FSEventStreamEventFlags flags = 0;
  if (isNew) flags |= kFSEventStreamEventFlagItemCreated;
  if (amongChanged && !isNew && (isChanged || !stampsRenames_)) flags |= kFSEventStreamEventFlagItemRenamed;
  if (isSince(item.stx_mtime)) {
    flags |= kFSEventStreamEventFlagItemModified;
  } else if (isChanged && !isNew) {
    flags |= kFSEventStreamEventFlagItemInodeMetaMod;
  }
  if (flags == 0) return 0;
  return flags | (isFolder                 ? kFSEventStreamEventFlagItemIsDir
                  : S_ISLNK(item.stx_mode) ? kFSEventStreamEventFlagItemIsSymlink
                                           : kFSEventStreamEventFlagItemIsFile);
}

}  // namespace platform::fsevents
