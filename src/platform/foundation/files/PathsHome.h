#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// The home folder of the user `name` by the password database; nullopt when there is no such user or the entry's folder is not absolute.
std::optional<std::string> homeDirectoryForUser(std::string_view name);

/// `path` with a leading "~" or "~user" replaced by that user's home folder; as it stands when it has none or nobody is called so.
std::string stringByExpandingTilde(std::string_view path);

}  // namespace platform
