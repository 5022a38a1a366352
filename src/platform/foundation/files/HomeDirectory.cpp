#include "platform/foundation/files/HomeDirectory.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "platform/foundation/base/UserDatabase.h"

namespace platform {

namespace {

/// Of the user whom `lookUp` finds.
template <class LookUp>
std::optional<std::string> homeFolderBy(LookUp lookUp) {
  return databaseEntry<passwd>(lookUp, [](const passwd& entry) -> std::optional<std::string> {
    if (entry.pw_dir == nullptr || entry.pw_dir[0] != '/') return std::nullopt;
    return entry.pw_dir;
  });
}

}  // namespace

std::string NSHomeDirectory() {
  if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') return home;
  const auto byUser = [](auto... arguments) { return getpwuid_r(geteuid(), arguments...); };
  return homeFolderBy(byUser).value_or("/");
}

std::optional<std::string> homeDirectoryForUser(std::string_view name) {
  const std::string terminated(name);
  return homeFolderBy([&](auto... arguments) { return getpwnam_r(terminated.c_str(), arguments...); });
}

std::string stringByExpandingTilde(std::string_view path) {
  if (!path.starts_with('~')) return std::string(path);
  const std::size_t end = std::min(path.find('/'), path.size());
  const std::string_view user = path.substr(1, end - 1);
  const auto home = user.empty() ? NSHomeDirectory() : homeDirectoryForUser(user);
  return home ? *home + std::string(path.substr(end)) : std::string(path);
}

}  // namespace platform
