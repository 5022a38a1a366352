#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/fsevents/source/ChangeSource.h"

namespace platform::fsevents {
namespace {

/// IN_MASK_ADD, although the mask is always the same: without it the kernel empties the mask of a folder that is watched already before it
/// fills it again, and a change that another processor makes in that moment is lost.
constexpr std::uint32_t kFolderMask = IN_MASK_ADD | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MOVE_SELF | IN_MODIFY |
                                      IN_CLOSE_WRITE | IN_ATTRIB | IN_EXCL_UNLINK;
constexpr std::uint32_t kFileMask = IN_MASK_ADD | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB;
/// How long the second half of a folder's move may be behind the first.
constexpr std::chrono::milliseconds kPatience(10);
/// The halves of a move are queued by one system call: only what other processors did in that moment can stand between them.
constexpr int kSearchedEvents = 4096;
/// And what the folder itself tells of its move follows the halves in the same way.
constexpr int kSearchedForItself = 64;

struct BitRow {
  std::uint32_t kernel;
  std::uint32_t ours;
};
constexpr BitRow kBits[] = {
    // NOLINT(modernize-avoid-c-arrays): a table
    {IN_CREATE, RawChange::kCreated},          {IN_DELETE, RawChange::kRemoved},    {IN_MODIFY, RawChange::kModified},
    {IN_CLOSE_WRITE, RawChange::kClosedWrite}, {IN_ATTRIB, RawChange::kAttributes}, {IN_MOVED_FROM, RawChange::kRenamed},
    {IN_MOVED_TO, RawChange::kRenamed},        {IN_IGNORED, RawChange::kForgotten}, {IN_Q_OVERFLOW, RawChange::kOverflow},
};

/// inotify (inotify(7)), one watch per folder. Its key is the watch descriptor. A folder is always watched through an open descriptor, so
/// that the watch and the listing that follows are of one inode: by making it the working directory of the thread, which the thread has for
/// itself (unshare(2), CLONE_FS), or, where that is refused, through /proc/self/fd.
class InotifySource final : public ChangeSource {
 public:
  explicit InotifySource(FileHandle queue) : ChangeSource(std::move(queue)) {}

  [[nodiscard]] const char* name() const override { return "inotify"; }
  [[nodiscard]] bool knowsTargets() const override { return false; }
  [[nodiscard]] std::size_t orphans() const override { return 0; }
  void identify(int /*parent*/, const char* /*name*/, KernelKey& key) const override { key.clear(); }

  void leaveFolders() override {
    if (std::exchange(isInFolder_, false)) static_cast<void>(::chdir("/"));
  }

  void forget(std::string_view key, int /*onFileSystem*/) override {
    int watch = -1;
    if (key.size() != sizeof watch) return;
    std::memcpy(&watch, key.data(), sizeof watch);
    // Fails where the kernel let go of it first, with the folder: nothing to do then.
    static_cast<void>(::inotify_rm_watch(descriptor(), watch));
  }

  int mark(int descriptor, bool isFolder, KernelKey& key) override {
    key.clear();
    const int watch = addWatch(descriptor, isFolder);
    if (watch < 0) return errno;
    newest_ = std::max(newest_, watch);
    key.append(&watch, sizeof watch);
    return 0;
  }

  // The kernel tells the number of a watch only to who adds it. It counts them upwards (and would need two thousand million of them to come
  // round), so a higher number than any before is that of a folder without a watch.
  int keyOf(int folder, KernelKey& key) override {
    key.clear();
    const int watch = addWatch(folder, true);
    if (watch < 0) return errno == ENOSPC ? 0 : errno;
    if (watch > newest_) {
      newest_ = watch;
      static_cast<void>(::inotify_rm_watch(descriptor(), watch));
    } else {
      key.append(&watch, sizeof watch);
    }
    return 0;
  }

 protected:
  std::size_t dispatchOne(char* bytes, std::size_t count, const Visitor& visit, std::optional<Clock::time_point>& wait) override {
    auto* event = reinterpret_cast<inotify_event*>(bytes);
    if (count < sizeof *event || count < sizeof *event + event->len) return count;
    const std::size_t used = sizeof *event + event->len;
    if (event->mask == 0) return used;  // the second half of a move that was handed over with the first
    RawChange change;
    for (const BitRow& row : kBits) {
      if ((event->mask & row.kernel) != 0) change.bits |= row.ours;
    }
    if (change.bits == 0) return used;
    change.isDirectory = (event->mask & IN_ISDIR) != 0;
    const std::string_view folder = keyIn(*event);
    const std::string_view name = nameIn(*event);
    if ((event->mask & IN_MOVED_TO) != 0) {
      change.newFolder = folder;
      change.newName = name;
    } else {
      change.folder = folder;
      change.name = name;
    }
    if (change.isDirectory && (change.bits & RawChange::kRenamed) != 0) {
      const Rest rest = restOf(bytes + used, count - used, *event);
      if (const auto until = readAt() + kPatience; !rest.isComplete && (hasMore() || Clock::now() < until)) {
        wait = until;
        return 0;
      }
      take(rest, change);
    }
    visit(change);
    return used;
  }

 private:
  static std::string_view keyIn(const inotify_event& event) { return {reinterpret_cast<const char*>(&event.wd), sizeof event.wd}; }
  static std::string_view nameIn(const inotify_event& event) { return {event.name, event.len == 0 ? 0 : ::strnlen(event.name, event.len)}; }

  /// What follows the first event of a folder's move: its second half, then that of the folder itself, which says which one it was.
  struct Rest {
    inotify_event* secondHalf = nullptr;
    inotify_event* itself = nullptr;
    /// Nothing that is still to come belongs to the move.
    bool isComplete = false;
  };
  static Rest restOf(char* bytes, std::size_t count, const inotify_event& first) {
    Rest rest;
    bool isHalf = (first.mask & IN_MOVED_FROM) != 0;
    // What a folder tells of its move after another's halves belongs to those.
    bool isAnothers = false;
    int left = kSearchedEvents;
    while (--left > 0 && count >= sizeof(inotify_event)) {
      auto* event = reinterpret_cast<inotify_event*>(bytes);
      const std::size_t used = sizeof *event + event->len;
      if (used > count) return rest;
      if (isHalf && (event->mask & IN_MOVED_TO) != 0 && event->cookie == first.cookie) {
        rest = Rest{event, nullptr, false};
        isHalf = isAnothers = false;
        left = kSearchedForItself;
      } else if ((event->mask & IN_MOVE_SELF) != 0 && rest.itself == nullptr && !isAnothers) {
        rest.itself = event;
        // A half without another, unless that follows at once: then this was somebody else's.
        left = isHalf ? std::min(left, kSearchedForItself) : 0;
      } else if ((event->mask & IN_ISDIR) != 0 && (event->mask & (IN_MOVED_FROM | IN_MOVED_TO)) != 0) {
        isAnothers = true;
        if (!isHalf || rest.itself != nullptr) left = 0;
      }
      bytes += used;
      count -= used;
    }
    rest.isComplete = left <= 0;
    return rest;
  }

  static void take(const Rest& rest, RawChange& change) {
    if (rest.secondHalf != nullptr) {
      change.newFolder = keyIn(*rest.secondHalf);
      change.newName = nameIn(*rest.secondHalf);
      rest.secondHalf->mask = 0;
    }
    if (rest.itself != nullptr) {
      change.target = keyIn(*rest.itself);
      rest.itself->mask = 0;
    }
  }

  int addWatch(int folder, bool isFolder) {
    if (isFolder && hasOwnDirectory() && ::fchdir(folder) == 0) {
      isInFolder_ = true;
      return ::inotify_add_watch(descriptor(), ".", kFolderMask | IN_ONLYDIR);
    }
    std::array<char, 40> path{};
    fmt::format_to_n(path.data(), path.size() - 1, "/proc/self/fd/{}", folder);
    return ::inotify_add_watch(descriptor(), path.data(), isFolder ? kFolderMask : kFileMask);
  }

  static bool hasOwnDirectory() {
    thread_local const bool own = ::unshare(CLONE_FS) == 0;
    return own;
  }

  bool isInFolder_ = false;
  /// The highest number of a watch so far.
  int newest_ = 0;
};

}  // namespace

std::unique_ptr<ChangeSource> makeInotifySource(int& error) {
  FileHandle queue(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!queue.isOpen()) {
    error = errno;
    return nullptr;
  }
  return std::make_unique<InotifySource>(std::move(queue));
}

}  // namespace platform::fsevents
