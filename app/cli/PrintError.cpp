#include "app/cli/PrintError.h"

#include <unistd.h>

#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/log/Log.h"

namespace kestrine {

void printError(std::string_view text) {
  // The log goes the same way, by a thread of its own: what a message speaks of comes before it.
  platform::flushLog();
  static_cast<void>(platform::writeAll(STDERR_FILENO, text));
}

}  // namespace kestrine
