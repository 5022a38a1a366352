#include "platform/fsevents/polling/FolderListing.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "platform/fsevents/folders/FolderScan.h"

#ifndef STATX_ATTR_MOUNT_ROOT
#define STATX_ATTR_MOUNT_ROOT 0x00002000
#endif

namespace platform::fsevents {
namespace {

/// Items between two looks at the clock.
constexpr int kItemsBetweenClocks = 64;
constexpr std::int64_t kMillisecond = 1'000'000;
/// The kernel's clock for stamps goes on by whole ticks: 10 ms at the slowest (CONFIG_HZ=100), and may lie as much behind a finer one.
constexpr std::int64_t kStampTick = 10 * kMillisecond;
/// A stamp further ahead than this comes from a clock that was set back; no change of today leaves the same one.
constexpr std::int64_t kAhead = 60'000 * kMillisecond;

constexpr unsigned kWanted =
    STATX_TYPE | STATX_MODE | STATX_INO | STATX_SIZE | STATX_MTIME | STATX_CTIME | STATX_BTIME | STATX_UID | STATX_GID;

}  // namespace

std::int64_t stampClock() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

std::int64_t timeStepOf(const StampRules& rules) { return rules.timeStep + kStampTick; }

bool isRecent(const PolledItem& item, std::int64_t lookedAt, const StampRules& rules) {
  // Of a folder whose content changed last there is nothing to tell but what its mode and owner show.
  if (item.isNamedOnly || (item.kind == PolledItem::Kind::Folder && item.isContentStamp)) return false;
  return item.changed >= lookedAt - timeStepOf(rules) && item.changed <= lookedAt + kAhead;
}

PolledItem lookAt(int folder, const char* name, std::uint64_t listedInode, unsigned char type, int& error) {
  error = 0;
  struct statx status {};
  if (::statx(folder, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_EMPTY_PATH, kWanted, &status) == 0) {
    // What is mounted there is not this folder's; what it hides is still there.
    const bool isCovered = name[0] != '\0' && (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    if (!isCovered) return itemOf(status, listedInode);
    return namedItem(listedInode, S_ISDIR(status.stx_mode) ? DT_DIR : S_ISLNK(status.stx_mode) ? DT_LNK : DT_REG);
  }
  error = errno;
  PolledItem item = namedItem(listedInode, type);
  item.isAbsent = error == ENOENT || error == ENOTDIR;
  return item;
}

FolderListing::Progress FolderListing::read(Clock::time_point end) {
  for (int items = 0;; ++items) {
    if (items % kItemsBetweenClocks == 0) {
      if (items > 0 && Clock::now() >= end) return Progress::More;
      now_ = stampClock();
      if (began_ == 0) began_ = now_;
    }
    if (at_ >= filled_) {
      const ssize_t count = ::getdents64(folder_, buffer_.data(), buffer_.size());
      if (count == 0) return Progress::Done;
      if (count < 0) {
        error_ = errno;
        return Progress::Failed;
      }
      at_ = 0;
      filled_ = static_cast<std::size_t>(count);
    }
    const auto* entry = reinterpret_cast<const dirent64*>(buffer_.data() + at_);
    at_ += entry->d_reclen;
    const char* name = entry->d_name;
    if (isDots(name)) continue;
    const PolledItem item = look(name, entry->d_ino, entry->d_type);
    if (!item.isAbsent && !append(name, item)) {
      error_ = EOVERFLOW;
      return Progress::Failed;
    }
  }
}

PolledItem FolderListing::look(const char* name, std::uint64_t listedInode, unsigned char type) {
  int error = 0;
  const PolledItem item = lookAt(folder_, name, listedInode, type, error);
  if (error != 0 && error != EACCES && !item.isAbsent && itemError_ == 0) itemError_ = error;
  return item;
}

bool FolderListing::append(std::string_view name, PolledItem item) {
  if (!item.isNamedOnly && item.changed <= now_ + kAhead) offset_ = std::max(offset_, item.changed - now_);
  item.looks = isRecent(item, now_, rules_) ? PolledItem::kLastLook : 0;
  return table_.append(name, item);
}

bool FolderListing::finish(const FolderTable& before) {
  now_ = stampClock();
  table_.arrange();
  bool isComplete = true;
  std::vector<std::size_t> missing;
  FolderTable::walk(before, table_, [&](std::size_t b, std::size_t a) {
    if (a == FolderTable::kNone) missing.push_back(b);
  });
  for (const std::size_t at : missing) {
    const std::string name(before.name(at));
    const PolledItem known = before.item(at);
    int error = 0;
    PolledItem item = lookAt(folder_, name.c_str(), 0, DT_UNKNOWN, error);
    if (item.isAbsent || error == EACCES) continue;  // without rights the list is all there is
    if (item.isNamedOnly) {
      if (error != 0 && itemError_ == 0) itemError_ = error;
      item = known;
      item.isNamedOnly = true;
    }
    isComplete = append(name, item) && isComplete;
  }
  for (const std::string& name : again_) {
    const PolledItem item = look(name.c_str(), 0, DT_UNKNOWN);
    if (item.isAbsent || !item.isNamedOnly) isComplete = append(name, item) && isComplete;
  }
  if (!missing.empty() || !again_.empty()) table_.arrange();
  ended_ = stampClock();
  return isComplete;
}

}  // namespace platform::fsevents
