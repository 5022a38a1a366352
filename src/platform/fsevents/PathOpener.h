#pragma once

#include <string>
#include <string_view>

#include "platform/foundation/base/FileHandle.h"
#include "platform/fsevents/FSEventStreamTypes.h"

namespace platform::fsevents {

/// Opens the folder `relative` ("/a/b", or "" for the folder itself) below the open folder `root` for reading. No symbolic link is followed
/// and the length of the path has no limit. An empty handle and errno on failure (ELOOP or ENOTDIR where a link or a file stands on the
/// way).
FileHandle openFolderBelow(int root, std::string_view relative);
/// Opens the folder `name` in `parent`, which may not be a symbolic link. errno on failure.
FileHandle openFolderIn(int parent, const char* name);

/// Whether these functions' errno says that no folder stands there (any more), as opposed to one that cannot be opened.
bool isGone(int error);

/// What stands at an absolute path of any length, the last component not followed: ItemIsFile, ItemIsDir or ItemIsSymlink; 0 where nothing
/// can be seen.
FSEventStreamEventFlags kindOfItem(const std::string& path);
FSEventStreamEventFlags kindOfMode(unsigned mode);

}  // namespace platform::fsevents
