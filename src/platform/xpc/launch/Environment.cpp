#include "platform/xpc/launch/Environment.h"

#include <cstdlib>
#include <string_view>

#include "platform/foundation/files/HomeDirectory.h"

namespace platform::xpc {

std::string absolutePathFromEnvironment(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && value[0] == '/' ? value : "";
}

std::string stateHome() {
  const std::string folder = absolutePathFromEnvironment("XDG_STATE_HOME");
  return folder.empty() ? NSHomeDirectory() + "/.local/state" : folder;
}

std::vector<std::string> dataFolders() {
  std::vector<std::string> folders;
  const std::string own = absolutePathFromEnvironment("XDG_DATA_HOME");
  folders.push_back(own.empty() ? NSHomeDirectory() + "/.local/share" : own);
  const char* shared = std::getenv("XDG_DATA_DIRS");
  std::string_view rest = shared != nullptr && shared[0] != '\0' ? shared : "/usr/local/share:/usr/share";
  while (!rest.empty()) {
    const std::string_view folder = rest.substr(0, rest.find(':'));
    rest.remove_prefix(std::min(rest.size(), folder.size() + 1));
    if (folder.starts_with('/')) folders.emplace_back(folder);
  }
  return folders;
}

std::string logFile(const std::string& name) { return stateHome() + "/xpc/" + name + ".log"; }

}  // namespace platform::xpc
