#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "bench/Floor.h"
#include "bench/Measure.h"

namespace kestrine::bench {

namespace {

// What the engine asks for, so that both pay for the same events.
constexpr std::uint32_t kMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB |
                                IN_EXCL_UNLINK | IN_ONLYDIR | IN_DONT_FOLLOW;

class InotifyFloor : public Floor {
 public:
  InotifyFloor() : Floor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (descriptor_ < 0) fail("inotify_init1");
  }

  std::size_t watch(const std::string& path) override {
    add(path.c_str());
    return 1 + watchBelow(AT_FDCWD, path.c_str());
  }

  std::size_t drain() override {
    std::size_t events = 0;
    for (;;) {
      const ssize_t length = read(descriptor_, events_.data(), events_.size());
      if (length < 0 && errno == EAGAIN) return events;
      if (length <= 0) fail("read");
      for (ssize_t offset = 0; offset < length; ++events) {
        const auto* event = reinterpret_cast<const inotify_event*>(events_.data() + offset);
        if ((event->mask & IN_Q_OVERFLOW) != 0) overflowed_ = true;
        offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
  }

 private:
  void add(const char* name) {
    if (inotify_add_watch(descriptor_, name, kMask) < 0) fail("inotify_add_watch");
  }

  /// Watches the subfolders of a folder that is watched already: by name after one fchdir(2), which is the cheapest way to name them.
  std::size_t watchBelow(int parent, const char* name) {
    const int folder = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0) fail(name);
    const std::string names = subfolders(folder, entries_);
    std::size_t count = 0;
    if (!names.empty() && fchdir(folder) != 0) fail("fchdir");
    for (std::size_t at = 0; at < names.size(); at += std::strlen(names.c_str() + at) + 1, ++count) add(names.c_str() + at);
    for (std::size_t at = 0; at < names.size(); at += std::strlen(names.c_str() + at) + 1) count += watchBelow(folder, names.c_str() + at);
    close(folder);
    return count;
  }

  std::vector<char> entries_;
  alignas(inotify_event) std::array<char, 65536> events_{};
};

}  // namespace

std::unique_ptr<Floor> Floor::inotify() { return std::make_unique<InotifyFloor>(); }

}  // namespace kestrine::bench
