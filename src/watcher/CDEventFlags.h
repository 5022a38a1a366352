#pragma once

#include <array>
#include <string_view>

#include "platform/fsevents/event/FSEventStreamTypes.h"

namespace kestrine {

/// One question that a CDEvent answers about its flags: true when `bit` is set.
struct CDEventFlag {
  std::string_view predicate;
  platform::FSEventStreamEventFlags bit;
};

/// Every such question, lowest bit first.
inline constexpr std::array kCDEventFlags = std::to_array<CDEventFlag>({
    {"mustRescanSubDirectories", platform::kFSEventStreamEventFlagMustScanSubDirs},
    {"isUserDropped", platform::kFSEventStreamEventFlagUserDropped},
    {"isKernelDropped", platform::kFSEventStreamEventFlagKernelDropped},
    {"isEventIdentifiersWrapped", platform::kFSEventStreamEventFlagEventIdsWrapped},
    {"isHistoryDone", platform::kFSEventStreamEventFlagHistoryDone},
    {"isRootChanged", platform::kFSEventStreamEventFlagRootChanged},
    {"didVolumeMount", platform::kFSEventStreamEventFlagMount},
    {"didVolumeUnmount", platform::kFSEventStreamEventFlagUnmount},
    {"isCreated", platform::kFSEventStreamEventFlagItemCreated},
    {"isRemoved", platform::kFSEventStreamEventFlagItemRemoved},
    {"isInodeMetadataModified", platform::kFSEventStreamEventFlagItemInodeMetaMod},
    {"isRenamed", platform::kFSEventStreamEventFlagItemRenamed},
    {"isModified", platform::kFSEventStreamEventFlagItemModified},
    {"isFinderInfoModified", platform::kFSEventStreamEventFlagItemFinderInfoMod},
    {"didChangeOwner", platform::kFSEventStreamEventFlagItemChangeOwner},
    {"isXattrModified", platform::kFSEventStreamEventFlagItemXattrMod},
    {"isFile", platform::kFSEventStreamEventFlagItemIsFile},
    {"isDir", platform::kFSEventStreamEventFlagItemIsDir},
    {"isSymlink", platform::kFSEventStreamEventFlagItemIsSymlink},
});

/// The bit of the question `predicate`; a name that is not in the table does not compile.
consteval platform::FSEventStreamEventFlags cdEventFlag(std::string_view predicate) {
  for (const CDEventFlag& flag : kCDEventFlags) {
    if (flag.predicate == predicate) return flag.bit;
  }
  throw "no such predicate";
}

}  // namespace kestrine
