#include "platform/foundation/preferences/PreferencesPlace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <utility>

namespace platform {

namespace {

/// As many as the kernel follows, path_resolution(7).
constexpr int kLinksAtMost = 40;

/// What the link says; nullopt when it is none.
std::optional<std::string> linkIn(int folder, const std::string& name) {
  std::array<char, PATH_MAX> text;
  const ssize_t size = readlinkat(folder, name.c_str(), text.data(), text.size());
  if (size >= 0) return std::string(text.data(), static_cast<std::size_t>(size));
  if (errno != EINVAL && errno != ENOENT) throwLastError("following the link");
  return std::nullopt;
}

}  // namespace

PreferencesPlace::PreferencesPlace(const PreferencesFolder& origin, const std::string& path, std::string name)
    : origin_(origin), path_(path), name_(std::move(name)) {
  for (int followed = 0;; ++followed) {
    const auto target = linkIn(folder().descriptor(), name_);
    if (!target) return;
    if (followed == kLinksAtMost) throwError(ELOOP, "following the link");
    struct stat link {};
    if (fstatat(folder().descriptor(), name_.c_str(), &link, AT_SYMLINK_NOFOLLOW) != 0) throwLastError("following the link");
    const std::string full = target->starts_with('/') ? *target : path_ + "/" + *target;
    const auto slash = full.rfind('/');
    name_ = full.substr(slash + 1);
    if (name_.empty() || name_ == "." || name_ == "..") throwError(EISDIR, "following the link");
    path_ = full.substr(0, slash);
    elsewhere_.emplace(path_.empty() ? "/" : path_, false);
    // Else a user could have root replace any file.
    if (geteuid() == 0 && link.st_uid != 0 && folder().status().st_uid != link.st_uid) throwError(EACCES, "following another user's link");
  }
}

}  // namespace platform
