#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "platform/foundation/log/Log.h"

namespace platform {

bool standardErrorIsTheJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0) return false;
  dev_t device = 0;
  ino_t inode = 0;
  const char* const last = stream + std::strlen(stream);
  const auto afterDevice = std::from_chars(stream, last, device);
  if (afterDevice.ec != std::errc() || afterDevice.ptr == last || *afterDevice.ptr != ':') return false;
  const auto afterInode = std::from_chars(afterDevice.ptr + 1, last, inode);
  return afterInode.ec == std::errc() && afterInode.ptr == last && device == status.st_dev && inode == status.st_ino;
}

}  // namespace platform
