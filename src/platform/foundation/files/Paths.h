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
/// With one separator where several stand, and none at the end but the root's own.
std::string collapsedPath(std::string_view path);

/// A relative path seen from the process's current folder, which it asks the system for; an absolute one as it stands.
std::string absolutePath(const std::string& path);

/// Whether a path is a folder or lies somewhere below it, and whether it lies strictly below it; as texts, by whole components, so that
/// "/ab" is not below "/a". Both paths as they stand, with no separator at the end; the root may be "/" or "". Everything absolute is below
/// the root.
bool isAtOrBelowPath(std::string_view path, std::string_view folder);
bool isBelowPath(std::string_view path, std::string_view folder);

}  // namespace platform
