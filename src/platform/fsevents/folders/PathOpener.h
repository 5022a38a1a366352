#pragma once

#include <string>
#include <string_view>

#include "platform/foundation/base/FileHandle.h"
#include "platform/fsevents/event/FSEventStreamTypes.h"

namespace platform::fsevents {

/// Opens the folder `relative` ("/a/b", or "" for the folder itself) below the open folder `root` for reading. No symbolic link is
/// followed, no mount point is crossed (so no automount is triggered either), and the length of the path has no limit. An empty handle and
/// errno on failure (ELOOP or ENOTDIR where a link or a file stands on the way, EXDEV where something is mounted).
FileHandle openFolderBelow(int root, std::string_view relative);
/// Opens the folder `name` in `parent`, which may be neither a symbolic link nor a mount point. errno on failure.
FileHandle openFolderIn(int parent, const char* name);

/// Whether these functions' errno says that no folder stands there (any more), as opposed to one that cannot be opened.
bool isGone(int error);
/// Whether it says that the user lacks the right.
bool isRefused(int error);
/// Whether it says that something is mounted there.
bool isCovered(int error);
/// Whether it says that this process or the machine is out of something that it will have again: descriptors, memory.
bool isShortage(int error);

/// What stands at an absolute path of any length, the last component not followed: ItemIsFile, ItemIsDir or ItemIsSymlink; 0 where nothing
/// can be seen.
FSEventStreamEventFlags kindOfItem(const std::string& path);
FSEventStreamEventFlags kindOfMode(unsigned mode);

}  // namespace platform::fsevents
