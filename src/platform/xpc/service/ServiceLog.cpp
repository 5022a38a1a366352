#include "platform/xpc/service/ServiceLog.h"

#include <optional>

#include "platform/foundation/base/TrustedPath.h"
#include "platform/foundation/files/Paths.h"
#include "platform/foundation/log/Log.h"
#include "platform/xpc/launch/ServiceLogFile.h"

namespace platform::xpc {

void openServiceLog() {
  LogDestination destination;
  destination.syslog = !standardErrorIsTheJournal();
  destination.file = takeLogFile();
  const std::string folder = destination.file.empty() ? std::string() : stringByDeletingLastPathComponent(destination.file);
  std::optional<PathRefusal> refusal;
  if (!folder.empty()) {
    if (const auto made = openTrustedFolder(folder, {.makeFolder = folderMaker(0700)}); !made) refusal = made.error();
  }
  setLogDestination(destination);
  if (refusal)
    NSLog("xpc: the folder of the log, " + folder + ", cannot be " + (refusal->isDistrust ? "used: " : "made: ") + refusal->reason);
}

}  // namespace platform::xpc
