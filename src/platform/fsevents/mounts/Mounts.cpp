#include "platform/fsevents/mounts/Mounts.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/base/DescriptorIO.h"

namespace platform::fsevents {
namespace {

/// The calling thread's: that of the process cannot be opened once its first thread has ended.
constexpr const char* kTableFile = "/proc/thread-self/mountinfo";
/// A change must fall into each reading of the table, which takes less than a millisecond for a hundred mounts.
constexpr int kAttempts = 10;

/// The same for mounts that are alike in everything that stays as it is when a mount is moved.
std::uint64_t madeUpSerial(const Mount& mount, std::uint64_t generation) {
  std::string text = fmt::format("{} {} ", mount.id, generation);
  for (const std::string* const part : {&mount.device, &mount.root, &mount.type, &mount.source}) text.append(*part).push_back('\0');
  return std::hash<std::string>{}(text) | 1U;
}

}  // namespace

Mounts::Mounts() { read(); }

bool Mounts::changedSinceAsked() const {
  pollfd poller{file_.fileDescriptor(), POLLPRI, 0};
  return ::poll(&poller, 1, 0) == 1 && (poller.revents & POLLPRI) != 0;
}

/// The kernel hands the table over in pieces of a page or less, and only while it makes one piece does the table stand still.
bool Mounts::readOnce(std::vector<Mount>& mounts) {
  error_ = 0;
  if (!file_.isOpen()) file_ = FileHandle(::open(kTableFile, O_RDONLY | O_CLOEXEC));
  if (!file_.isOpen() || ::lseek(file_.fileDescriptor(), 0, SEEK_SET) != 0) {
    error_ = errno;
    return false;
  }
  const Result<std::string, int> text = readAll(file_.fileDescriptor(), std::numeric_limits<std::size_t>::max());
  if (!text) {
    error_ = text.error();
    return false;
  }
  mounts = parseMounts(*text);
  hasSerials_ = serials_.read();
  witnesses_.look();
  for (Mount& mount : mounts) {
    mount.serial = hasSerials_ ? serials_.of(mount.id) : 0;
    if (mount.serial == 0) mount.serial = madeUpSerial(mount, witnesses_.generationOf(mount.id));
  }
  return true;
}

int Mounts::attend(const std::vector<Mount>& mounts) { return hasSerials_ ? 0 : witnesses_.attend(mounts); }

bool Mounts::read() {
  std::vector<Mount> mounts;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    // Takes the notice of what this reading will see. After the last reading nothing is taken, so that the owner gets the notice.
    if (changedSinceAsked() || attempt == 0) {
      mounts.clear();
      if (!readOnce(mounts)) return false;
    } else {
      break;
    }
  }
  MountTable table(std::move(mounts));
  if (table == table_) return false;
  table_ = std::move(table);
  return true;
}

}  // namespace platform::fsevents
