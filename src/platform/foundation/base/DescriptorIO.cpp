#include "platform/foundation/base/DescriptorIO.h"

#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace platform {

Result<std::string, int> readAll(int descriptor, std::size_t limit) {
  std::string bytes;
  std::array<char, 1U << 16U> piece;
  while (bytes.size() <= limit) {
    const ssize_t count = ::read(descriptor, piece.data(), piece.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) break;
    bytes.append(piece.data(), static_cast<std::size_t>(count));
  }
  return bytes;
}

int writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return 0;
}

}  // namespace platform
