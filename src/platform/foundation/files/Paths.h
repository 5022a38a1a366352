#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// Path texts are bytes separated by '/'; nothing here touches the file system unless it says so. All functions may be called on any
/// thread.

/// Removes a trailing separator, repeated separators, "." and (in an absolute path) ".." components, and expands a leading "~". Symbolic
/// links are resolved only where that is needed to remove a ".." and a leading "/private" is left as it is. An empty path stays empty.
std::string stringByStandardizingPath(std::string_view path);
std::string stringByAppendingPathComponent(std::string_view path, std::string_view component);
std::string stringByDeletingLastPathComponent(std::string_view path);
std::string lastPathComponent(std::string_view path);
/// Without the dot; empty when there is none. A leading dot of a name starts no extension.
std::string pathExtension(std::string_view path);
std::string stringByDeletingPathExtension(std::string_view path);
/// With an empty extension the path is returned unchanged.
std::string stringByAppendingPathExtension(std::string_view path, std::string_view extension);
/// "/a/b" gives "/", "a", "b".
std::vector<std::string> pathComponents(std::string_view path);

}  // namespace platform
