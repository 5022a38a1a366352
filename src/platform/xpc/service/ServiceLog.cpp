#include "platform/xpc/service/ServiceLog.h"

#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/files/FileManager.h"
#include "platform/foundation/files/Paths.h"
#include "platform/foundation/log/Log.h"
#include "platform/xpc/launch/ServiceLogFile.h"

namespace platform::xpc {

void openServiceLog() {
  LogDestination destination;
  destination.syslog = !standardErrorIsTheJournal();
  destination.file = takeLogFile();
  const std::string folder = destination.file.empty() ? std::string() : stringByDeletingLastPathComponent(destination.file);
  const int error = folder.empty() ? 0 : makeFolders(folder, 0700);
  setLogDestination(destination);
  if (error != 0) NSLog("xpc: the folder of the log, " + folder + ", cannot be made: " + errnoText(error));
}

}  // namespace platform::xpc
