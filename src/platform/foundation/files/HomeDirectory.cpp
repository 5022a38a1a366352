#include "platform/foundation/files/HomeDirectory.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <vector>

namespace platform {

namespace {

/// Asks the password database through `lookUp`, with as much room as the entry needs.
template <class LookUp>
std::optional<std::string> homeFolderBy(LookUp lookUp) {
  constexpr std::size_t kMostRoom = std::size_t{1} << 20U;
  for (std::vector<char> room(1024); room.size() <= kMostRoom; room.resize(room.size() * 2)) {
    passwd entry{};
    passwd* found = nullptr;
    const int error = lookUp(&entry, room.data(), room.size(), &found);
    if (error == ERANGE) continue;
    if (found == nullptr || found->pw_dir == nullptr || found->pw_dir[0] != '/') return std::nullopt;
    return found->pw_dir;
  }
  return std::nullopt;
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
