#pragma once

#include <string>
#include <system_error>

namespace platform {

// Items of the file system, as the platform's file manager treats them. Threads: any thread; what others do to the items meanwhile is not
// locked out.

/// Whether something is at `path`, symbolic links followed. `isDirectory`, when given, tells whether it is a folder.
bool fileExistsAtPath(const std::string& path, bool* isDirectory = nullptr);

/// Copies the file, symbolic link or folder (with all it holds) at `source` to `destination`, with permissions and times of change. Links
/// are copied as links. An error, std::errc::file_exists when anything is at the destination, even a link that leads nowhere, and
/// std::errc::not_supported for a device, a pipe or a socket, leaves nothing behind. A folder cannot be copied into itself.
[[nodiscard]] std::error_code copyItemAtPath_toPath(const std::string& source, const std::string& destination);

}  // namespace platform
