#include "platform/fsevents/source/KernelLimits.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <optional>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/SystemError.h"

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
Explanation explainLimit(const Limit (&table)[N], std::string_view source) {  // NOLINT(modernize-avoid-c-arrays)
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
    return {fmt::format("the limit of {} is reached: {} = {}", limit.what, text, shown), fmt::format("raise it with: sysctl {}=N", text)};
  }
  return {std::string(source) + ": unknown limit", ""};
}

bool isOutOfDescriptors() {
  const FileHandle probe(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return !probe.isOpen();
}

Explanation describe(std::string_view source, std::string_view what, int error) {
  return {fmt::format("{}: {}: {}", source, what, errnoText(error)), ""};
}

Explanation explainOpenFiles() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return {fmt::format("the limit of open files is reached: RLIMIT_NOFILE = {}", limit.rlim_cur), "raise it with: ulimit -n N"};
}

/// What to do about errors of a file system that people can do something about.
struct RemedyRow {
  int error;
  const char* remedy;
};
constexpr RemedyRow kRemedies[] = {
    // NOLINT(modernize-avoid-c-arrays): a table
    {EACCES, "give the user the rights to read and to enter it: chmod u+rx FOLDER"},
    {EPERM, "give the user the rights to read and to enter it: chmod u+rx FOLDER"},
    {EIO, "look into the kernel's log (dmesg) and check the disk"},
    {EUCLEAN, "the file system is damaged: unmount it and run fsck(8)"},
    {ENOTCONN, "the program that serves this mount has ended: umount it and mount it again"},
    {ESTALE, "the server no longer knows this folder: umount it and mount it again"},
    {ETIMEDOUT, "see that the server of this mount can be reached"},
    {EHOSTDOWN, "see that the server of this mount can be reached"},
};

}  // namespace

bool isLimitReached(int error) { return error == EMFILE || error == ENFILE || error == ENOSPC || error == ENOMEM; }

Explanation explainMarkFailure(std::string_view source, int error) {
  if (error == ENOSPC) return explainLimit(kMarks, source);
  if (error == EMFILE) return explainQueueFailure(source, error);
  return describe(source, "a folder cannot be watched", error);
}

Explanation explainQueueFailure(std::string_view source, int error) {
  if (error == EMFILE && isOutOfDescriptors()) return explainOpenFiles();
  if (error == EMFILE || error == ENOSPC) return explainLimit(kQueues, source);
  return describe(source, "the kernel offers no queue", error);
}

Explanation explainOverflow(std::string_view source) {
  Explanation limit = explainLimit(kQueueLengths, source);
  limit.reason = "changes were lost and the tree is walked again: " + limit.reason;
  return limit;
}

Explanation explainFolderFailure(int error) {
  if (error == EMFILE && isOutOfDescriptors()) return explainOpenFiles();
  for (const RemedyRow& row : kRemedies) {
    if (row.error == error) return {"a folder cannot be read: " + errnoText(error), row.remedy};
  }
  return {"a folder cannot be read: " + errnoText(error), ""};
}

}  // namespace platform::fsevents
