#include "platform/fsevents/event/FSEventStreamTypes.h"

#include <array>

namespace platform {
namespace {

struct FlagName {
  FSEventStreamEventFlags flag;
  const char* name;
};

constexpr std::array kFlagNames{
    FlagName{kFSEventStreamEventFlagMustScanSubDirs, "MustScanSubDirs"},
    FlagName{kFSEventStreamEventFlagUserDropped, "UserDropped"},
    FlagName{kFSEventStreamEventFlagKernelDropped, "KernelDropped"},
    FlagName{kFSEventStreamEventFlagEventIdsWrapped, "EventIdsWrapped"},
    FlagName{kFSEventStreamEventFlagHistoryDone, "HistoryDone"},
    FlagName{kFSEventStreamEventFlagRootChanged, "RootChanged"},
    FlagName{kFSEventStreamEventFlagMount, "Mount"},
    FlagName{kFSEventStreamEventFlagUnmount, "Unmount"},
    FlagName{kFSEventStreamEventFlagItemCreated, "ItemCreated"},
    FlagName{kFSEventStreamEventFlagItemRemoved, "ItemRemoved"},
    FlagName{kFSEventStreamEventFlagItemInodeMetaMod, "ItemInodeMetaMod"},
    FlagName{kFSEventStreamEventFlagItemRenamed, "ItemRenamed"},
    FlagName{kFSEventStreamEventFlagItemModified, "ItemModified"},
    FlagName{kFSEventStreamEventFlagItemFinderInfoMod, "ItemFinderInfoMod"},
    FlagName{kFSEventStreamEventFlagItemChangeOwner, "ItemChangeOwner"},
    FlagName{kFSEventStreamEventFlagItemXattrMod, "ItemXattrMod"},
    FlagName{kFSEventStreamEventFlagItemIsFile, "ItemIsFile"},
    FlagName{kFSEventStreamEventFlagItemIsDir, "ItemIsDir"},
    FlagName{kFSEventStreamEventFlagItemIsSymlink, "ItemIsSymlink"},
};

}  // namespace

std::vector<std::string> FSEventStreamEventFlagNames(FSEventStreamEventFlags flags) {
  std::vector<std::string> names;
  for (const FlagName& row : kFlagNames) {
    if ((flags & row.flag) != 0) names.emplace_back(row.name);
  }
  return names;
}

}  // namespace platform
