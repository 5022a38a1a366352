#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "bench/Floor.h"
#include "bench/Measure.h"

namespace kestrine::bench {

namespace {

// What the engine asks for, so that both pay for the same events.
constexpr std::uint64_t kMask =
    FAN_CREATE | FAN_DELETE | FAN_RENAME | FAN_MODIFY | FAN_CLOSE_WRITE | FAN_ATTRIB | FAN_ONDIR | FAN_EVENT_ON_CHILD;

class FanotifyFloor : public Floor {
 public:
  FanotifyFloor()
      : Floor(fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_REPORT_DFID_NAME | FAN_REPORT_FID | FAN_REPORT_TARGET_FID,
                            O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ < 0) fail("fanotify_init");
  }

  std::size_t watch(const std::string& path) override { return watch(AT_FDCWD, path.c_str()); }

  std::size_t drain() override {
    std::size_t events = 0;
    for (;;) {
      ssize_t length = read(descriptor_, events_.data(), events_.size());
      if (length < 0 && errno == EAGAIN) return events;
      if (length <= 0) fail("read");
      const auto* event = reinterpret_cast<const fanotify_event_metadata*>(events_.data());
      for (; FAN_EVENT_OK(event, length); event = FAN_EVENT_NEXT(event, length)) {
        ++events;
        if ((event->mask & FAN_Q_OVERFLOW) != 0) overflowed_ = true;
      }
    }
  }

 private:
  std::size_t watch(int parent, const char* name) {
    const int folder = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0) fail(name);
    if (fanotify_mark(descriptor_, FAN_MARK_ADD, kMask, folder, nullptr) != 0) fail("fanotify_mark");
    auto* handle = reinterpret_cast<file_handle*>(handle_.data());
    handle->handle_bytes = MAX_HANDLE_SZ;
    int mount = 0;
    if (name_to_handle_at(folder, "", handle, &mount, AT_EMPTY_PATH) != 0) fail("name_to_handle_at");
    std::size_t count = 1;
    const std::string names = subfolders(folder, entries_);
    for (std::size_t at = 0; at < names.size(); at += std::strlen(names.c_str() + at) + 1) count += watch(folder, names.c_str() + at);
    close(folder);
    return count;
  }

  alignas(file_handle) std::array<char, sizeof(file_handle) + MAX_HANDLE_SZ> handle_{};
  std::vector<char> entries_;
  alignas(fanotify_event_metadata) std::array<char, 65536> events_{};
};

}  // namespace

std::unique_ptr<Floor> Floor::fanotify() { return std::make_unique<FanotifyFloor>(); }

}  // namespace kestrine::bench
