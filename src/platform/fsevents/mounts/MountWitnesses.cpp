#include "platform/fsevents/mounts/MountWitnesses.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <utility>

namespace platform::fsevents {
namespace {

/// The end of the file system is told with any mask; this adds next to nothing.
constexpr std::uint32_t kMask = IN_DELETE_SELF | IN_MASK_ADD;

/// Whether the open place is reached through this mount and not through one that came over it meanwhile.
bool isReachedThrough(int place, int mount) {
  struct statx facts {};
  if (::statx(place, "", AT_EMPTY_PATH | AT_NO_AUTOMOUNT, STATX_MNT_ID, &facts) != 0) return false;
  return (facts.stx_mask & STATX_MNT_ID) == 0 || facts.stx_mnt_id == static_cast<std::uint64_t>(mount);
}

}  // namespace

int MountWitnesses::add(const Mount& mount) {
  if (!queue_.isOpen()) queue_ = FileHandle(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!queue_.isOpen()) return errno;
  const FileHandle place(::open(mount.point.c_str(), O_PATH | O_CLOEXEC));
  if (!place.isOpen()) return errno;
  // Another change of the table is on its way then, and with it another call.
  if (!isReachedThrough(place.fileDescriptor(), mount.id)) return 0;
  const std::string path = fmt::format("/proc/self/fd/{}", place.fileDescriptor());
  const int watch = ::inotify_add_watch(queue_.fileDescriptor(), path.c_str(), kMask);
  if (watch < 0) return errno;
  watches_[mount.id] = watch;
  return 0;
}

int MountWitnesses::attend(const std::vector<Mount>& mounts) {
  std::map<int, int> former = std::exchange(watches_, {});
  int failure = 0;
  for (const Mount& mount : mounts) {
    if (const auto known = former.find(mount.id); known != former.end()) {
      watches_.insert(*known);
    } else if (const int error = add(mount); error != 0 && failure == 0) {
      failure = error;
    }
  }
  std::set<int> kept;
  for (const auto& [mount, watch] : watches_) kept.insert(watch);
  for (const auto& [mount, watch] : former) {
    // Fails where the file system has gone: then there is nothing to let go of.
    if (kept.insert(watch).second) static_cast<void>(::inotify_rm_watch(queue_.fileDescriptor(), watch));
  }
  return failure;
}

void MountWitnesses::gone(int watch) {
  for (auto next = watches_.begin(); next != watches_.end();) {
    if (watch >= 0 && next->second != watch) {
      ++next;
      continue;
    }
    generations_[next->first] = ++last_;
    next = watches_.erase(next);
  }
}

void MountWitnesses::look() {
  std::array<char, 4096> buffer;
  ssize_t size = 0;
  while (queue_.isOpen() && ((size = ::read(queue_.fileDescriptor(), buffer.data(), buffer.size())) > 0 || (size < 0 && errno == EINTR))) {
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= size;) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof event);
      at += static_cast<ssize_t>(sizeof event + event.len);
      // An overflow, whose watch is -1, means all of them.
      if ((event.mask & (IN_UNMOUNT | IN_IGNORED | IN_Q_OVERFLOW)) != 0) gone(event.wd);
    }
  }
}

std::uint64_t MountWitnesses::generationOf(int mount) const {
  const auto found = generations_.find(mount);
  return found == generations_.end() ? 0 : found->second;
}

}  // namespace platform::fsevents
