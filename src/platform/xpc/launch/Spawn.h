#pragma once

#include <string>

// Internal to the channel: how a client starts a service's program.
namespace platform::xpc {

/// Runs `program` as a process of its own that nobody has to wait for: a new session, "/" as its folder, /dev/null for its three standard
/// streams, default signals, the listening socket handed over (SocketActivation.h) as its only other descriptor, and the caller's
/// environment, in which `logFile` is named (ServiceLogFile.h). 0 when the program runs, else an errno value. Waits until it is known. Any
/// thread, in a process with any number of them.
[[nodiscard]] int spawnService(const std::string& program, int listener, const std::string& logFile);

}  // namespace platform::xpc
