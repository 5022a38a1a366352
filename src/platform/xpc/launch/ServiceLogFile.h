#pragma once

#include <string>

// Internal to the channel: the file for the log of a service that a client started, since nobody sees its standard error. The launcher
// names it in the service's environment. Both ends are here.
namespace platform::xpc {

/// The variable that tells the service where to log.
inline constexpr const char* kLogFileVariable = "XPC_LOG_FILE";

/// The launcher's choice for the service `name`: "<state folder>/xpc/<name>.log".
std::string serviceLogFile(const std::string& name);

/// The service's end: what the variable names, empty when that is no absolute path. The variable is removed, so that no child takes the
/// file for its own. While the process has one thread.
std::string takeLogFile();

}  // namespace platform::xpc
