#include "platform/foundation/base/Ownership.h"

#include <grp.h>
#include <pwd.h>
#include <sys/xattr.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>

#include "platform/foundation/base/UserDatabase.h"

namespace platform {

namespace {

/// Whether the number is a user's own in this user namespace, so that it stands for nobody else.
bool isMapped(uid_t user) {
  std::ifstream map("/proc/self/uid_map");
  std::uint64_t first = 0;
  std::uint64_t outside = 0;
  std::uint64_t count = 0;
  while (map >> first >> outside >> count) {
    if (user >= first && user - first < count) return true;
  }
  return false;
}

/// The number that stands for users without one.
std::optional<uid_t> numberOfTheUnknown() {
  uid_t number = 0;
  std::ifstream file("/proc/sys/kernel/overflowuid");
  if (file >> number) return number;
  return std::nullopt;
}

struct User {
  std::string name;
  gid_t group = 0;
};

/// Whether the group is the user's own and has no other member.
bool isPrivateGroup(gid_t group, uid_t owner) {
  const auto byNumber = [owner](auto... rest) { return getpwuid_r(owner, rest...); };
  const auto user = databaseEntry<passwd>(byNumber, [](const passwd& entry) -> std::optional<User> {
    return User{entry.pw_name != nullptr ? entry.pw_name : "", entry.pw_gid};
  });
  if (!user || user->name.empty() || user->group != group) return false;
  const auto groupByNumber = [group](auto... rest) { return getgrgid_r(group, rest...); };
  const auto isAlone = databaseEntry<struct group>(groupByNumber, [&user](const struct group& entry) -> std::optional<bool> {
    if (entry.gr_name == nullptr || user->name != entry.gr_name) return false;
    for (char* const* member = entry.gr_mem; member != nullptr && *member != nullptr; ++member) {
      if (user->name != *member) return false;
    }
    return true;
  });
  return isAlone.value_or(false);
}

/// Whether a list of access rights names further users or groups; then the mode's group bits are not about the group (acl(5)).
bool hasAccessList(int descriptor) {
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  return getxattr(path.c_str(), "system.posix_acl_access", nullptr, 0) > 0;
}

std::string modeText(mode_t mode) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%04o", mode & 07777U);
  return text.data();
}

}  // namespace

bool isOfTheSystem(uid_t user) { return user == 0 || (user == numberOfTheUnknown() && !isMapped(user)); }

std::string userText(uid_t user) { return user == 0 ? "root" : "user " + std::to_string(user); }

std::optional<std::string> otherWriters(int descriptor, const struct stat& status) {
  const bool isPrivate = (status.st_mode & S_IWGRP) == 0 || (!hasAccessList(descriptor) && isPrivateGroup(status.st_gid, status.st_uid));
  if ((status.st_mode & S_IWOTH) != 0) return "everybody can write to it (mode " + modeText(status.st_mode) + ")";
  if (!isPrivate) return "group " + std::to_string(status.st_gid) + " can write to it (mode " + modeText(status.st_mode) + ")";
  return std::nullopt;
}

}  // namespace platform
