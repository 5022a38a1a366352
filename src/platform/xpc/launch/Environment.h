#pragma once

#include <string>
#include <vector>

// Internal to the channel: the folders that the environment names, by the XDG base directory rules. Relative paths there are ignored.
namespace platform::xpc {

/// The variable's value when it is an absolute path, else empty.
std::string absolutePathFromEnvironment(const char* variable);
/// ${XDG_STATE_HOME:-~/.local/state}
std::string stateHome();
/// XDG_DATA_HOME and then XDG_DATA_DIRS, each with its default, in the order of search.
std::vector<std::string> dataFolders();
/// The file that keeps what the service `name` logs when a client started it.
std::string logFile(const std::string& name);

}  // namespace platform::xpc
