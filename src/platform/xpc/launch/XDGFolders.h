#pragma once

#include <string>
#include <vector>

// Internal to the channel: the folders that the environment names, by the XDG base directory rules. Relative paths there are ignored,
// but that of the runtime folder.
// Threads: any, while nobody writes to the environment.
namespace platform::xpc {

/// ${XDG_RUNTIME_DIR} as it stands, whatever that is; empty when there is none.
std::string xdgRuntimeFolder();
/// ${XDG_STATE_HOME:-~/.local/state}
std::string xdgStateFolder();
/// XDG_DATA_HOME and then XDG_DATA_DIRS, each with its default, in the order of search.
std::vector<std::string> xdgDataFolders();

}  // namespace platform::xpc
