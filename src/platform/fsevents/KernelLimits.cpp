#include "platform/fsevents/KernelLimits.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>

#include "platform/foundation/base/FileHandle.h"

namespace platform::fsevents {
namespace {

/// One limit of the kernel: its name as sysctl(8) takes it, for the machine and for the user namespace that the process is in.
struct Limit {
  std::string_view source;
  std::string_view what;
  const char* machine;
  const char* userNamespace;
};
constexpr Limit kMarks[] = {
    // NOLINT(modernize-avoid-c-arrays): a table
    {"fanotify", "fanotify marks", "fs/fanotify/max_user_marks", "user/max_fanotify_marks"},
    {"inotify", "inotify watches", "fs/inotify/max_user_watches", "user/max_inotify_watches"},
};
constexpr Limit kQueues[] = {
    // NOLINT(modernize-avoid-c-arrays): a table
    {"fanotify", "fanotify groups", "fs/fanotify/max_user_groups", "user/max_fanotify_groups"},
    {"inotify", "inotify instances", "fs/inotify/max_user_instances", "user/max_inotify_instances"},
};
constexpr Limit kQueueLengths[] = {
    // NOLINT(modernize-avoid-c-arrays): a table
    {"fanotify", "queued fanotify events", "fs/fanotify/max_queued_events", nullptr},
    {"inotify", "queued inotify events", "fs/inotify/max_queued_events", nullptr},
};

std::optional<long> valueOf(const char* name) {
  if (name == nullptr) return std::nullopt;
  std::ifstream file(std::string("/proc/sys/") + name);
  long value = 0;
  return file >> value ? std::optional(value) : std::nullopt;
}

std::string sysctlName(std::string name) {
  for (char& letter : name) letter = letter == '/' ? '.' : letter;
  return name;
}

template <std::size_t N>
std::string explainLimit(const Limit (&table)[N], std::string_view source) {  // NOLINT(modernize-avoid-c-arrays)
  for (const Limit& limit : table) {
    if (limit.source != source) continue;
    const char* name = limit.machine;
    std::optional<long> value = valueOf(name);
    // Inside a user namespace its own limit holds too, and the lower one is the one that was met.
    if (const auto inner = valueOf(limit.userNamespace); inner && (!value || *inner < *value)) {
      name = limit.userNamespace;
      value = inner;
    }
    const std::string text = sysctlName(name);
    const std::string shown = value ? fmt::format("{}", *value) : "unknown";
    return fmt::format("the limit of {} is reached: {} = {}; raise it with: sysctl {}=N", limit.what, text, shown, text);
  }
  return std::string(source) + ": unknown limit";
}

bool isOutOfDescriptors() {
  const FileHandle probe(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return !probe.isOpen();
}

std::string describe(std::string_view source, std::string_view what, int error) {
  return fmt::format("{}: {}: {}", source, what, std::strerror(error));  // NOLINT(concurrency-mt-unsafe): glibc's is safe for known codes
}

}  // namespace

bool isLimitReached(int error) { return error == EMFILE || error == ENFILE || error == ENOSPC || error == ENOMEM; }

std::string explainMarkFailure(std::string_view source, int error) {
  if (error == ENOSPC) return explainLimit(kMarks, source);
  if (error == EMFILE) return explainQueueFailure(source, error);
  return describe(source, "a folder cannot be watched", error);
}

std::string explainQueueFailure(std::string_view source, int error) {
  if (error == EMFILE && isOutOfDescriptors()) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return fmt::format("the limit of open files is reached: RLIMIT_NOFILE = {}; raise it with: ulimit -n N", limit.rlim_cur);
  }
  if (error == EMFILE || error == ENOSPC) return explainLimit(kQueues, source);
  return describe(source, "the kernel offers no queue", error);
}

std::string explainOverflow(std::string_view source) {
  return "changes were lost and the tree is walked again: " + explainLimit(kQueueLengths, source);
}

}  // namespace platform::fsevents
