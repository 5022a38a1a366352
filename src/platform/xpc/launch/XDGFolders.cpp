#include "platform/xpc/launch/XDGFolders.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "platform/foundation/files/HomeDirectory.h"
#include "platform/foundation/files/Paths.h"

namespace platform::xpc {

namespace {

/// The variable's value when it is an absolute path, else empty.
std::string absolutePath(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && value[0] == '/' ? value : "";
}

}  // namespace

// A relative one is not ignored: whoever set it meant sockets to be elsewhere than where they would be then.
std::string xdgRuntimeFolder() {
  const char* value = std::getenv("XDG_RUNTIME_DIR");
  return value != nullptr ? value : "";
}

std::string xdgStateFolder() {
  const std::string folder = absolutePath("XDG_STATE_HOME");
  return folder.empty() ? stringByAppendingPathComponent(NSHomeDirectory(), ".local/state") : folder;
}

std::vector<std::string> xdgDataFolders() {
  std::vector<std::string> folders;
  const std::string own = absolutePath("XDG_DATA_HOME");
  folders.push_back(own.empty() ? stringByAppendingPathComponent(NSHomeDirectory(), ".local/share") : own);
  const char* shared = std::getenv("XDG_DATA_DIRS");
  std::string_view rest = shared != nullptr && shared[0] != '\0' ? shared : "/usr/local/share:/usr/share";
  while (!rest.empty()) {
    const std::string_view folder = rest.substr(0, rest.find(':'));
    rest.remove_prefix(std::min(rest.size(), folder.size() + 1));
    if (folder.starts_with('/')) folders.emplace_back(folder);
  }
  return folders;
}

}  // namespace platform::xpc
