#include "platform/fsevents/polling/PolledItem.h"

#include <dirent.h>

#include <initializer_list>

namespace platform::fsevents {
namespace {

std::int64_t nanoseconds(const struct statx_timestamp& time) {
  // Unsigned, so that a year beyond 2262 wraps and stays comparable.
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000U + time.tv_nsec);
}

std::uint32_t digest(std::initializer_list<std::uint64_t> words) {
  std::uint64_t sum = 0x243F6A8885A308D3U;
  for (const std::uint64_t word : words) {
    sum = (sum ^ word) * 0x9E3779B97F4A7C15U;
    sum ^= sum >> 29U;
  }
  return static_cast<std::uint32_t>(sum ^ (sum >> 32U));
}

}  // namespace

PolledItem itemOf(const struct statx& status, std::uint64_t listedInode) {
  PolledItem item;
  item.inode = status.stx_ino;
  item.changed = nanoseconds(status.stx_ctime);
  const std::int64_t modified = nanoseconds(status.stx_mtime);
  item.kind = S_ISDIR(status.stx_mode)   ? PolledItem::Kind::Folder
              : S_ISLNK(status.stx_mode) ? PolledItem::Kind::Link
                                         : PolledItem::Kind::File;
  if ((status.stx_mask & STATX_BTIME) != 0) item.birth = digest({static_cast<std::uint64_t>(nanoseconds(status.stx_btime))}) | 1U;
  item.content = item.kind == PolledItem::Kind::Folder ? digest({status.stx_mode, status.stx_uid, status.stx_gid})
                                                       : digest({status.stx_size, static_cast<std::uint64_t>(modified)});
  item.isNumberedAlike = listedInode == item.inode;
  item.isContentStamp = item.changed == modified;
  return item;
}

PolledItem namedItem(std::uint64_t listedInode, unsigned char type) {
  PolledItem item;
  item.inode = listedInode;
  item.kind = type == DT_DIR ? PolledItem::Kind::Folder : type == DT_LNK ? PolledItem::Kind::Link : PolledItem::Kind::File;
  item.isNamedOnly = true;
  return item;
}

FSEventStreamEventFlags flagOf(PolledItem::Kind kind) {
  if (kind == PolledItem::Kind::Folder) return kFSEventStreamEventFlagItemIsDir;
  return kind == PolledItem::Kind::Link ? kFSEventStreamEventFlagItemIsSymlink : kFSEventStreamEventFlagItemIsFile;
}

bool isSameItem(const PolledItem& before, const PolledItem& after, const StampRules& rules) {
  if (before.kind != after.kind) return false;
  if (before.isNamedOnly != after.isNamedOnly) {
    const bool isComparable = before.isNamedOnly ? after.isNumberedAlike && before.inode != 0 : before.isNumberedAlike;
    return !isComparable || before.inode == after.inode;
  }
  const bool isSameBirth = before.birth == after.birth || before.birth == 0 || after.birth == 0;
  if (before.inode == after.inode) return isSameBirth;
  return rules.foreign && !after.isNamedOnly && isSameBirth && before.changed == after.changed && before.content == after.content;
}

FSEventStreamEventFlags changeOf(const PolledItem& before, const PolledItem& after) {
  const bool isFolder = after.kind == PolledItem::Kind::Folder;
  if (after.isNamedOnly) return 0;
  // What was never seen may have changed.
  if (before.isNamedOnly || before.content != after.content)
    return isFolder ? kFSEventStreamEventFlagItemInodeMetaMod : kFSEventStreamEventFlagItemModified;
  if (before.changed == after.changed || (isFolder && after.isContentStamp)) return 0;
  return kFSEventStreamEventFlagItemInodeMetaMod;
}

FSEventStreamEventFlags changeOfName(const PolledItem& before, const PolledItem& after, const StampRules& rules) {
  if (!before.isAbsent && !after.isAbsent && isSameItem(before, after, rules)) return changeOf(before, after);
  return (before.isAbsent ? 0 : kFSEventStreamEventFlagItemRemoved) | (after.isAbsent ? 0 : kFSEventStreamEventFlagItemCreated);
}

}  // namespace platform::fsevents
