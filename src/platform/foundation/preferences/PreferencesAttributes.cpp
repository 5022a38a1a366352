#include "platform/foundation/preferences/PreferencesAttributes.h"

#include <linux/limits.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "platform/foundation/preferences/PreferencesFolder.h"

namespace platform {

namespace {

/// Those that say something about this file's bytes (its signature, its measure) are not for the next.
constexpr std::string_view kKept[] = {"user.", "trusted.", "system.posix_acl_access", "security.selinux", "security.SMACK64"};

std::string extendedAttribute(int descriptor, const char* name) {
  std::string value;
  for (ssize_t size = fgetxattr(descriptor, name, nullptr, 0); size > 0;) {
    value.resize(static_cast<std::size_t>(size));
    size = fgetxattr(descriptor, name, value.data(), value.size());
    if (size >= 0) {
      value.resize(static_cast<std::size_t>(size));
      return value;
    }
    if (errno != ERANGE) break;
    size = fgetxattr(descriptor, name, nullptr, 0);
  }
  return {};
}

std::vector<std::pair<std::string, std::string>> extendedAttributes(int descriptor) {
  std::vector<std::pair<std::string, std::string>> found;
  // A file system without them has none; a list longer than the kernel allows there is not.
  std::string names;
  if (flistxattr(descriptor, nullptr, 0) > 0) names.resize(XATTR_LIST_MAX);
  const ssize_t size = names.empty() ? 0 : flistxattr(descriptor, names.data(), names.size());
  for (ssize_t at = 0; at < size;) {
    const std::string name = names.data() + at;
    at += static_cast<ssize_t>(name.size()) + 1;
    if (std::ranges::any_of(kKept, [&name](std::string_view kept) { return name.starts_with(kept); }))
      found.emplace_back(name, extendedAttribute(descriptor, name.c_str()));
  }
  return found;
}

}  // namespace

PreferencesAttributes::PreferencesAttributes(const struct stat& folder)
    : mode_(0600), owner_(geteuid() == 0 ? folder.st_uid : geteuid()), group_(geteuid() == 0 ? folder.st_gid : static_cast<gid_t>(-1)) {}

PreferencesAttributes::PreferencesAttributes(int descriptor) : mode_(0600), owner_(geteuid()), group_(static_cast<gid_t>(-1)) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) throwLastError("looking at the former file");
  mode_ = status.st_mode & 0777U;
  owner_ = status.st_uid;
  group_ = status.st_gid;
  extended_ = extendedAttributes(descriptor);
}

void PreferencesAttributes::putOn(int descriptor) const {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) throwLastError("looking at the temporary file");
  const bool isGroupMeant = group_ != static_cast<gid_t>(-1) && group_ != status.st_gid;
  // Who may not give it away keeps it; the group may still be one of the writer's.
  if ((owner_ != status.st_uid || isGroupMeant) && fchown(descriptor, owner_, group_) != 0 && isGroupMeant) {
    static_cast<void>(!fchown(descriptor, static_cast<uid_t>(-1), group_));
  }
  for (const auto& [name, value] : extended_) {
    if (fsetxattr(descriptor, name.c_str(), value.data(), value.size(), 0) != 0 && (errno == ENOSPC || errno == EDQUOT))
      throwLastError("giving the temporary file the attributes of the former");
  }
  // An access control list has its say in the mode.
  if (((status.st_mode & 07777U) != mode_ || !extended_.empty()) && fchmod(descriptor, mode_) != 0)
    throwLastError("giving the temporary file the mode of the former");
}

void giveToOwnerOf(const struct stat& folder, int descriptor) {
  if (geteuid() == 0 && folder.st_uid != 0) static_cast<void>(!fchown(descriptor, folder.st_uid, folder.st_gid));
}

}  // namespace platform
