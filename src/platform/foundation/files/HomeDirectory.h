#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

// Home folders, and the paths that are written by them. Threads: any; the environment is read.

/// The user's home folder: $HOME when it is set to an absolute path, else the password database's entry, else "/".
std::string NSHomeDirectory();

/// The home folder of the user `name` by the password database; nullopt when there is no such user or the entry's folder is not absolute.
std::optional<std::string> homeDirectoryForUser(std::string_view name);

/// `path` with a leading "~" or "~user" replaced by that user's home folder; as it stands when it has none or nobody is called so.
std::string stringByExpandingTilde(std::string_view path);

}  // namespace platform
