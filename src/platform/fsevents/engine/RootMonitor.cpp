#include "platform/fsevents/engine/RootMonitor.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/fsevents/folders/FolderScan.h"
#include "platform/fsevents/folders/PathOpener.h"
#include "platform/fsevents/mounts/PathSteps.h"

namespace platform::fsevents {
namespace {

constexpr std::uint32_t kSelfMask = IN_MOVE_SELF | IN_DELETE_SELF;
constexpr std::uint32_t kAwaitMask = IN_CREATE | IN_MOVED_TO | IN_ATTRIB | kSelfMask;
/// A file that somebody holds open loses a link long before it is deleted (inotify(7)).
constexpr std::uint32_t kFileMask = IN_ATTRIB | kSelfMask;
constexpr std::uint32_t kGuardMask = IN_DELETE | IN_MOVED_TO;
constexpr int kAttempts = 5;

std::string handleOf(const std::string& path) {
  alignas(file_handle) std::array<char, sizeof(file_handle) + MAX_HANDLE_SZ> buffer{};
  auto* handle = reinterpret_cast<file_handle*>(buffer.data());
  handle->handle_bytes = MAX_HANDLE_SZ;
  int mount = 0;
  if (::name_to_handle_at(AT_FDCWD, path.c_str(), handle, &mount, AT_SYMLINK_FOLLOW) != 0) return {};
  return {reinterpret_cast<const char*>(handle->f_handle), handle->handle_bytes};
}

/// Without a descriptor: a lack of them must not make a path look as if it were gone.
RootIdentity identityOf(const std::string& path) {
  struct statx info {};
  if (::statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT, STATX_INO | STATX_BTIME, &info) != 0) return {};
  std::string incarnation = handleOf(path);
  if (incarnation.empty()) incarnation.assign(reinterpret_cast<const char*>(&info.stx_btime), sizeof info.stx_btime);
  return {true, ::makedev(info.stx_dev_major, info.stx_dev_minor), info.stx_ino, std::move(incarnation)};
}

/// Whether the folder at the path can be removed by rmdir(2) as it stands; true when nobody can tell. False of what is no folder.
bool mayBeEmpty(const std::string& path) {
  const FileHandle folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
  if (!folder.isOpen()) return !isGone(errno);
  alignas(dirent64) std::array<char, 1024> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): the kernel fills it
  ssize_t count = 0;
  while ((count = ::getdents64(folder.fileDescriptor(), buffer.data(), buffer.size())) > 0) {
    for (ssize_t at = 0; at < count;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer.data() + at);
      if (!isDots(entry->d_name)) return false;
      at += entry->d_reclen;
    }
  }
  return true;
}

}  // namespace

RootMonitor::RootMonitor(std::vector<std::string> paths)
    : paths_(std::move(paths)), isLooked_(paths_.size(), true), identities_(paths_.size()) {}

const std::vector<RootIdentity>& RootMonitor::arm() {
  // Watch, then look: a path that changes in between is looked at again.
  isSettled_ = false;
  for (int attempt = 0; attempt < kAttempts && !isSettled_; ++attempt) {
    isSettled_ = true;
    FileHandle fresh(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    // Where no other can be had the former goes on; what it watches needlessly wakes for nothing at worst.
    if (fresh.isOpen()) std::swap(queue_, fresh);
    awaited_.clear();
    guarded_.clear();
    watched_.clear();
    polled_.clear();
    identities_.assign(paths_.size(), {});
    for (std::size_t i = 0; i < paths_.size(); ++i) {
      if (isLooked_[i]) armPath(i, identities_[i]);
    }
    for (std::size_t i = 0; i < paths_.size(); ++i) isSettled_ = isSettled_ && (!isLooked_[i] || identityOf(paths_[i]) == identities_[i]);
  }
  std::sort(polled_.begin(), polled_.end());
  polled_.erase(std::unique(polled_.begin(), polled_.end()), polled_.end());
  return identities_;
}

void RootMonitor::armPath(std::size_t number, RootIdentity& identity) {
  std::vector<std::string> left;
  pushComponents(paths_[number], left);
  std::string at = "/";
  for (int links = 0; !left.empty();) {
    const std::string name = std::move(left.back());
    left.pop_back();
    if (name == ".") continue;
    if (name == "..") {
      at = at.size() > 1 ? at.substr(0, std::max<std::size_t>(at.rfind('/'), 1)) : at;
      continue;
    }
    const std::string next = at.size() > 1 ? at + "/" + name : "/" + name;
    struct stat info {};
    if (::lstat(next.c_str(), &info) != 0) {
      awaitName(number, at, name);
      return;
    }
    watchComponent(number, next, S_ISREG(info.st_mode) ? kFileMask : kSelfMask);
    if (!S_ISLNK(info.st_mode)) {
      at = next;
      continue;
    }
    const std::string target = linkAt(next);
    if (++links > kMaximumLinks || target.empty()) return;
    if (target.front() == '/') at = "/";
    pushComponents(target, left);
  }
  if (mayBeEmpty(at)) guard(number, at);
  identity = identityOf(at);
}

void RootMonitor::watchComponent(std::size_t number, const std::string& path, std::uint32_t mask) {
  const int watch = ::inotify_add_watch(queue_.fileDescriptor(), path.c_str(), mask | IN_DONT_FOLLOW | IN_MASK_ADD);
  if (watch < 0) {
    notWatched(path, errno);
  } else {
    watched_.emplace(watch, number);
  }
}

void RootMonitor::notWatched(const std::string& path, int error) {
  // What has gone since it was seen is no obstacle: the next look finds what stands there instead.
  isSettled_ = isSettled_ && error != ENOENT && error != ENOTDIR;
  polled_.push_back(path);
}

void RootMonitor::awaitName(std::size_t number, const std::string& folder, const std::string& name) {
  const int watch = ::inotify_add_watch(queue_.fileDescriptor(), folder.c_str(), kAwaitMask | IN_MASK_ADD);
  if (watch < 0) {
    notWatched(folder, errno);
    return;
  }
  watched_.emplace(watch, number);
  awaited_.emplace(watch, name);
  guard(number, folder);
  // What appeared before the watch stood is told by nobody, and the whole path may be missing still.
  struct stat info {};
  const std::string awaited = (folder == "/" ? "" : folder) + "/" + name;
  isSettled_ = isSettled_ && ::lstat(awaited.c_str(), &info) != 0;
}

void RootMonitor::guard(std::size_t number, const std::string& folder) {
  if (folder == "/") return;
  const std::size_t end = folder.rfind('/');
  const std::string above = folder.substr(0, std::max<std::size_t>(end, 1));
  const int watch = ::inotify_add_watch(queue_.fileDescriptor(), above.c_str(), kGuardMask | IN_MASK_ADD);
  if (watch < 0) {
    notWatched(above, errno);
    return;
  }
  awaited_.emplace(watch, folder.substr(end + 1));
  guarded_.emplace(number, folder);
}

bool RootMonitor::needsGuard(std::size_t path) const {
  return !guarded_.contains(path) && (mayBeEmpty(paths_[path]) || identityOf(paths_[path]) != identities_[path]);
}

bool RootMonitor::read() {
  bool changed = false;
  bool strayed = false;
  touched_.clear();
  moved_.clear();
  alignas(inotify_event) std::array<char, 16384> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): the kernel fills it
  for (ssize_t count = 0; (count = ::read(queue_.fileDescriptor(), buffer.data(), buffer.size())) > 0;) {
    for (ssize_t at = 0; at < count;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
      at += static_cast<ssize_t>(sizeof *event + event->len);
      if (event->len == 0) {
        // About a component itself, or about lost events.
        changed = true;
        if (event->mask == IN_ATTRIB) continue;
        const auto [first, last] = watched_.equal_range(event->wd);
        for (auto entry = first; entry != last; ++entry) {
          touched_.insert(entry->second);
          if ((event->mask & IN_MOVE_SELF) != 0) moved_.insert(entry->second);
        }
        continue;
      }
      const std::string_view name(event->name, ::strnlen(event->name, event->len));
      const auto [first, last] = awaited_.equal_range(event->wd);
      const bool awaited = std::any_of(first, last, [&](const auto& entry) { return entry.second == name; });
      changed |= awaited;
      strayed |= !awaited && (event->mask & kGuardMask) != 0;
    }
  }
  // A guard that is needed no longer would be woken by the neighbours for nothing.
  return changed || (strayed && std::any_of(guarded_.begin(), guarded_.end(), [this](const auto& entry) {
                       return identities_[entry.first].exists && !mayBeEmpty(entry.second);
                     }));
}

}  // namespace platform::fsevents
