#include "platform/fsevents/RootMonitor.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace platform::fsevents {
namespace {

constexpr std::uint32_t kSelfMask = IN_MOVE_SELF | IN_DELETE_SELF;
constexpr std::uint32_t kAwaitMask = IN_CREATE | IN_MOVED_TO | IN_ATTRIB | kSelfMask;
/// As the kernel counts links before it gives up (path_resolution(7)).
constexpr int kMaximumLinks = 40;
constexpr int kAttempts = 5;

std::string handleOf(int file) {
  alignas(file_handle) std::array<char, sizeof(file_handle) + MAX_HANDLE_SZ> buffer{};
  auto* handle = reinterpret_cast<file_handle*>(buffer.data());
  handle->handle_bytes = MAX_HANDLE_SZ;
  int mount = 0;
  if (::name_to_handle_at(file, "", handle, &mount, AT_EMPTY_PATH) != 0) return {};
  return {reinterpret_cast<const char*>(handle->f_handle), handle->handle_bytes};
}

RootIdentity identityOf(const std::string& path) {
  const FileHandle file(::open(path.c_str(), O_PATH | O_CLOEXEC));
  struct statx info {};
  if (!file.isOpen() || ::statx(file.fileDescriptor(), "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &info) != 0) return {};
  std::string incarnation = handleOf(file.fileDescriptor());
  if (incarnation.empty()) incarnation.assign(reinterpret_cast<const char*>(&info.stx_btime), sizeof info.stx_btime);
  return {true, ::makedev(info.stx_dev_major, info.stx_dev_minor), info.stx_ino, std::move(incarnation)};
}

/// The components of `text` in reverse, so that the next one is at the end.
void pushComponents(const std::string& text, std::vector<std::string>& reversed) {
  std::vector<std::string> parts;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('/', at), text.size());
    if (end > at) parts.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  reversed.insert(reversed.end(), std::make_move_iterator(parts.rbegin()), std::make_move_iterator(parts.rend()));
}

std::string readLink(const std::string& path) {
  std::array<char, PATH_MAX> target{};
  const ssize_t count = ::readlink(path.c_str(), target.data(), target.size());
  return count > 0 ? std::string(target.data(), static_cast<std::size_t>(count)) : std::string();
}

}  // namespace

RootMonitor::RootMonitor(std::vector<std::string> paths) : paths_(std::move(paths)) {}

const std::vector<RootIdentity>& RootMonitor::arm() {
  // Watch, then look: a path that changes in between is looked at again.
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    FileHandle former = std::exchange(queue_, FileHandle(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)));
    awaited_.clear();
    watched_.clear();
    polled_.clear();
    identities_.assign(paths_.size(), {});
    for (std::size_t i = 0; i < paths_.size(); ++i) armPath(i, identities_[i]);
    const bool stable = std::equal(paths_.begin(), paths_.end(), identities_.begin(),
                                   [](const std::string& path, const RootIdentity& seen) { return identityOf(path) == seen; });
    if (stable) break;
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
    watchComponent(number, next);
    if (!S_ISLNK(info.st_mode)) {
      at = next;
      continue;
    }
    const std::string target = readLink(next);
    if (++links > kMaximumLinks || target.empty()) return;
    if (target.front() == '/') at = "/";
    pushComponents(target, left);
  }
  identity = identityOf(at);
}

void RootMonitor::watchComponent(std::size_t number, const std::string& path) {
  const int watch = ::inotify_add_watch(queue_.fileDescriptor(), path.c_str(), kSelfMask | IN_DONT_FOLLOW | IN_MASK_ADD);
  if (watch < 0) {
    polled_.push_back(path);
  } else {
    watched_.emplace(watch, number);
  }
}

void RootMonitor::awaitName(std::size_t number, const std::string& folder, const std::string& name) {
  const int watch = ::inotify_add_watch(queue_.fileDescriptor(), folder.c_str(), kAwaitMask | IN_MASK_ADD);
  if (watch < 0) {
    polled_.push_back(folder);
    return;
  }
  watched_.emplace(watch, number);
  awaited_.emplace(watch, std::pair(number, name));
}

bool RootMonitor::read() {
  bool changed = false;
  sawMove_ = false;
  touched_.clear();
  alignas(inotify_event) std::array<char, 16384> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): the kernel fills it
  for (ssize_t count = 0; (count = ::read(queue_.fileDescriptor(), buffer.data(), buffer.size())) > 0;) {
    for (ssize_t at = 0; at < count;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
      at += static_cast<ssize_t>(sizeof *event + event->len);
      if (event->len == 0) {
        // About a component itself, or about lost events.
        changed = true;
        sawMove_ |= (event->mask & IN_MOVE_SELF) != 0;
        const auto [first, last] = watched_.equal_range(event->wd);
        for (auto entry = first; entry != last; ++entry) touched_.insert(entry->second);
        continue;
      }
      const std::string_view name(event->name, ::strnlen(event->name, event->len));
      const auto [first, last] = awaited_.equal_range(event->wd);
      changed |= std::any_of(first, last, [&](const auto& entry) { return entry.second.second == name; });
    }
  }
  return changed;
}

}  // namespace platform::fsevents
