#pragma once

#include <dirent.h>

#include <functional>
#include <string_view>

#include "platform/foundation/base/FileHandle.h"
#include "platform/fsevents/event/FSEventStreamTypes.h"

namespace platform::fsevents {

/// Whether the entry of a folder is "." or "..": the folder itself, or the one above.
constexpr bool isDots(const char* name) { return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')); }

/// Hands the entries of an open folder to `visit` (name and kind: ItemIsFile, ItemIsDir, ItemIsSymlink), "." and ".." left out. With
/// `foldersOnly` just the folders. `visit` may close nothing of the folder. Returns 0 when the folder was read to its end, or errno: then
/// what was handed over is not all (getdents64(2)). Touches no tree; any thread.
[[nodiscard]] int scanFolder(int folder, bool foldersOnly,
                             const std::function<void(const char* name, FSEventStreamEventFlags kind)>& visit);

}  // namespace platform::fsevents
