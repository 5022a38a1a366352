#include "tests/foundation/FlushControl.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace kestrine::test {

std::atomic<int> FlushControl::files = 0;
std::atomic<int> FlushControl::folders = 0;
std::atomic<int> FlushControl::foldersToFail = 0;
std::atomic<const std::function<void()>*> FlushControl::beforeFile = nullptr;

}  // namespace kestrine::test

/// In place of the C library's.
extern "C" int fsync(int descriptor) {
  using kestrine::test::FlushControl;
  struct stat status {};
  const bool isFolder = fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode);
  const auto* work = isFolder ? nullptr : FlushControl::beforeFile.exchange(nullptr);
  if (work != nullptr) (*work)();
  ++(isFolder ? FlushControl::folders : FlushControl::files);
  if (isFolder && FlushControl::foldersToFail > 0) {
    --FlushControl::foldersToFail;
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fsync, descriptor));
}
