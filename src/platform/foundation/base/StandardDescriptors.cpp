#include "platform/foundation/base/StandardDescriptors.h"

#include <fcntl.h>
#include <sysexits.h>
#include <unistd.h>

#include <cerrno>

namespace platform {

namespace {

struct StandardDescriptor {
  int number;
  int flags;
};
constexpr StandardDescriptor kStandardDescriptors[] = {
    {STDIN_FILENO, O_WRONLY},
    {STDOUT_FILENO, O_RDONLY},
    {STDERR_FILENO, O_WRONLY},
};

}  // namespace

void openMissingStandardDescriptors() {
  for (const StandardDescriptor& standard : kStandardDescriptors) {
    if (fcntl(standard.number, F_GETFD) >= 0 || errno != EBADF) continue;
    // The lowest number that is free, and those before it are not. Inherited by other programs, as these descriptors are.
    if (open("/dev/null", standard.flags) != standard.number) _exit(EX_OSERR);
  }
}

}  // namespace platform
