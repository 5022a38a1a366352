#pragma once

#include <optional>
#include <string>

// Internal to the channel: how a client starts a service's program.
namespace platform::xpc {

/// The variable that tells the service where to log.
inline constexpr const char* kLogFileVariable = "XPC_LOG_FILE";

/// Runs `program` as a process of its own that nobody has to wait for: a new session, "/" as its folder, /dev/null for its three standard
/// streams, default signals, no descriptor but `listener` as number 3, and the caller's environment with LISTEN_FDS, LISTEN_PID
/// (sd_listen_fds(3)) and `logFile` added. Returns what went wrong; nothing when the program runs.
std::optional<std::string> spawnService(const std::string& program, int listener, const std::string& logFile);

}  // namespace platform::xpc
