#include <fmt/format.h>

#include "platform/foundation/Log.h"
#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine {

void FileWatcherServiceXPC::logErrorMethod(const platform::Exception& exception) {
  platform::NSLog(fmt::format("FileWatcher could not start: {}: {}", exception.name(), exception.reason()));
}

}  // namespace kestrine
