#include "platform/network/message/TemporaryFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/value/UUID.h"

namespace platform::network {

namespace {

constexpr std::size_t kPiece = 256U << 10U;
/// copy_file_range(2) takes any length, but a smaller one can be interrupted.
constexpr std::uint64_t kKernelPiece = 64U << 20U;

std::string freshName() { return temporaryFolder() + "/NetworkDownload_" + UUID::random().string() + ".tmp"; }

bool cannotCopyInKernel(int error) {
  return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EBADF || error == EPERM;
}

bool cannotBeNameless(int error) { return error == EOPNOTSUPP || error == EISDIR || error == ENOENT || error == EINVAL; }

int copyByReading(int from, std::uint64_t offset, int to, std::uint64_t length) {
  std::vector<char> room(kPiece);
  while (offset < length) {
    const auto count = pread(from, room.data(), static_cast<std::size_t>(std::min<std::uint64_t>(room.size(), length - offset)),
                             static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) return ENODATA;
    if (const int failure = writeAll(to, {room.data(), static_cast<std::size_t>(count)}); failure != 0) return failure;
    offset += static_cast<std::uint64_t>(count);
  }
  return 0;
}

}  // namespace

std::string temporaryFolder() {
  const char* const chosen = std::getenv("TMPDIR");
  if (chosen != nullptr && *chosen == '/') return chosen;
  return access("/var/tmp", W_OK | X_OK) == 0 ? "/var/tmp" : "/tmp";
}

Result<FileHandle, int> makeNamelessFile() {
  FileHandle nameless(open(temporaryFolder().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (nameless.isOpen()) return nameless;
  if (!cannotBeNameless(errno)) return errno;
  const auto name = freshName();
  FileHandle named(open(name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600));
  if (!named.isOpen()) return errno;
  unlink(name.c_str());
  return named;
}

Result<std::string, int> nameFile(const FileHandle& file) {
  auto name = freshName();
  const auto own = "/proc/self/fd/" + std::to_string(file.fileDescriptor());
  if (linkat(AT_FDCWD, own.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) return name;
  struct stat status {};
  if (fstat(file.fileDescriptor(), &status) != 0) return errno;
  const FileHandle copy(open(name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600));
  if (!copy.isOpen()) return errno;
  const int failure = copyFile(file.fileDescriptor(), copy.fileDescriptor(), static_cast<std::uint64_t>(status.st_size));
  if (failure == 0) return name;
  unlink(name.c_str());
  return failure;
}

int copyFile(int from, int to, std::uint64_t length) {
  off64_t offset = 0;
  while (static_cast<std::uint64_t>(offset) < length) {
    const auto wanted = static_cast<std::size_t>(std::min(kKernelPiece, length - static_cast<std::uint64_t>(offset)));
    const auto count = copy_file_range(from, &offset, to, nullptr, wanted, 0);
    if (count > 0 || (count < 0 && errno == EINTR)) continue;
    if (count < 0 && !cannotCopyInKernel(errno)) return errno;
    // Some kernels answer 0 for files that they cannot copy between; reading tells whether the source has really ended.
    return copyByReading(from, static_cast<std::uint64_t>(offset), to, length);
  }
  return 0;
}

}  // namespace platform::network
