#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "platform/fsevents/event/FSEventStreamTypes.h"

namespace platform::fsevents {

/// How a file system's stamps are to be understood.
struct StampRules {
  /// Nanoseconds between two stamps that can differ.
  std::int64_t timeStep = 0;
  /// Another clock than this kernel's stamps, and inode numbers may change while an item stays (network file systems, FUSE).
  bool foreign = false;
};

/// What one look shows of one item of a folder. A value.
struct PolledItem {
  enum class Kind : std::uint8_t { File, Folder, Link };

  std::uint64_t inode = 0;
  /// The change time in nanoseconds.
  std::int64_t changed = 0;
  /// Of the birth time, so that an inode number used again is another item; 0 where the file system has none.
  std::uint32_t birth = 0;
  /// Of size and modification time; of a folder's mode and owner, since what it holds is no change of its own.
  std::uint32_t content = 0;
  Kind kind = Kind::File;
  /// Whether a change may have come right after the look and left the same stamps; 0 when that cannot be. The next look tells, if it comes
  /// later than the next stamp (kLastLook; kFirstLook the same, for what was there when the folder came into the region), or the one after
  /// it, where the kernel told of the item between two looks (kTold).
  std::uint8_t looks = 0;
  static constexpr std::uint8_t kLastLook = 1;
  static constexpr std::uint8_t kFirstLook = 2;
  static constexpr std::uint8_t kTold = 3;
  /// Only name and inode are known: the folder may be read but not entered, something is mounted there, or the look failed.
  bool isNamedOnly = false;
  /// The folder's own list gives the same inode number, so that a look that yields no more than that can be compared with this one.
  bool isNumberedAlike = false;
  /// The last change was one of the content: change and modification time are the same.
  bool isContentStamp = false;
  /// Nothing is there.
  bool isAbsent = false;
};

/// From statx(2) and the inode number in the folder's list (0: not known).
PolledItem itemOf(const struct statx& status, std::uint64_t listedInode);
/// From the list alone; `type` as in getdents64(2).
PolledItem namedItem(std::uint64_t listedInode, unsigned char type);

/// ItemIsFile, ItemIsDir or ItemIsSymlink.
FSEventStreamEventFlags flagOf(PolledItem::Kind kind);
/// Whether these are one item, as opposed to another that took its name.
bool isSameItem(const PolledItem& before, const PolledItem& after, const StampRules& rules);
/// ItemModified, ItemInodeMetaMod or 0: what happened to one item.
FSEventStreamEventFlags changeOf(const PolledItem& before, const PolledItem& after);
/// The same for one name, where nothing or another item may have been before or is now: ItemCreated and ItemRemoved besides.
FSEventStreamEventFlags changeOfName(const PolledItem& before, const PolledItem& after, const StampRules& rules);

}  // namespace platform::fsevents
