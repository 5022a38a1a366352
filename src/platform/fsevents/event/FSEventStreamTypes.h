#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

using FSEventStreamEventId = std::uint64_t;
using FSEventStreamEventFlags = std::uint32_t;
using FSEventStreamCreateFlags = std::uint32_t;

/// Which part of the kernel tells the changes: FSEventStreamSource.
enum class FSEventStreamSource { Automatic, Fanotify, Inotify };

/// "From now on", as a since-identifier.
inline constexpr FSEventStreamEventId kFSEventStreamEventIdSinceNow = 0xFFFFFFFFFFFFFFFF;

inline constexpr FSEventStreamCreateFlags kFSEventStreamCreateFlagNone = 0x0;
/// Paths are handed over as text objects. Accepted and without effect: paths are always std::string here.
inline constexpr FSEventStreamCreateFlags kFSEventStreamCreateFlagUseCFTypes = 0x1;
/// Deliver the first change after a quiet time at once, and what follows it within the latency together.
inline constexpr FSEventStreamCreateFlags kFSEventStreamCreateFlagNoDefer = 0x2;
/// Tell removal, renaming and re-creation of the watched paths themselves and of their ancestors as RootChanged.
inline constexpr FSEventStreamCreateFlags kFSEventStreamCreateFlagWatchRoot = 0x4;
/// Leave out changes made by this process.
inline constexpr FSEventStreamCreateFlags kFSEventStreamCreateFlagIgnoreSelf = 0x8;
/// One event per item, not per folder.
inline constexpr FSEventStreamCreateFlags kFSEventStreamCreateFlagFileEvents = 0x10;

inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagNone = 0x00000000;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagMustScanSubDirs = 0x00000001;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagUserDropped = 0x00000002;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagKernelDropped = 0x00000004;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagEventIdsWrapped = 0x00000008;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagHistoryDone = 0x00000010;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagRootChanged = 0x00000020;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagMount = 0x00000040;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagUnmount = 0x00000080;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagItemCreated = 0x00000100;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagItemRemoved = 0x00000200;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagItemInodeMetaMod = 0x00000400;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagItemRenamed = 0x00000800;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagItemModified = 0x00001000;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagItemFinderInfoMod = 0x00002000;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagItemChangeOwner = 0x00004000;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagItemXattrMod = 0x00008000;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagItemIsFile = 0x00010000;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagItemIsDir = 0x00020000;
inline constexpr FSEventStreamEventFlags kFSEventStreamEventFlagItemIsSymlink = 0x00040000;

/// The names of the bits set in `flags` without their common prefix, lowest bit first: "ItemCreated", "MustScanSubDirs". Bits without a
/// name are left out.
std::vector<std::string> FSEventStreamEventFlagNames(FSEventStreamEventFlags flags);

/// One delivered notice.
struct FSEvent {
  /// Bytes as the file system has them; begins with the watched path as the caller gave it (without trailing separators).
  std::string path;
  FSEventStreamEventFlags flags = kFSEventStreamEventFlagNone;
  FSEventStreamEventId id = 0;
};

}  // namespace platform
