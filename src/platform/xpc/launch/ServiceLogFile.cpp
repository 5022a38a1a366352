#include "platform/xpc/launch/ServiceLogFile.h"

#include <cstdlib>

#include "platform/xpc/launch/XDGFolders.h"

namespace platform::xpc {

std::string serviceLogFile(const std::string& name) { return xdgStateFolder() + "/xpc/" + name + ".log"; }

std::string takeLogFile() {
  const char* value = std::getenv(kLogFileVariable);
  std::string file = value != nullptr && value[0] == '/' ? value : "";
  unsetenv(kLogFileVariable);
  return file;
}

}  // namespace platform::xpc
