#include "service/LegacyService.h"

#include <cstdlib>

#include "platform/foundation/Log.h"

namespace kestrine {

int runLegacyService() {
  platform::NSLog("FileWatcherXpcService cannot run on 10.7: the low-level hosting path is not part of this build");
  platform::flushLog();
  return EXIT_FAILURE;
}

}  // namespace kestrine
