#pragma once

#include <string>
#include <variant>

#include "platform/foundation/base/FileHandle.h"

namespace platform::xpc {

/// Why a service cannot be reached, in words that name the thing and what to do about it.
struct LaunchError {
  std::string reason;
  friend bool operator==(const LaunchError&, const LaunchError&) = default;
};

/// A connected, non-blocking socket to the service `name`, which is started when nobody listens: its program is found through the installed
/// service description, its socket is bound here and handed over as systemd would (sd_listen_fds(3)). Of several callers at once, in any
/// number of processes, one starts it. Blocks for the time that takes. Any thread but the channel's own.
[[nodiscard]] std::variant<FileHandle, LaunchError> connectToService(const std::string& name);

/// The same without ever starting anything or removing a file: fails when nobody listens.
[[nodiscard]] std::variant<FileHandle, LaunchError> connectToRunningService(const std::string& name);

/// Whether `name` could be reached at all: it has a socket or an installed description. Starts nothing.
[[nodiscard]] std::variant<std::monostate, LaunchError> checkService(const std::string& name);

/// Whether a process holds the service's lock file, and which.
struct RunningService {
  bool isAlive = false;
  /// 0 when not alive, or when it did not get to write it yet.
  int processIdentifier = 0;
};
[[nodiscard]] RunningService runningService(const std::string& name);

}  // namespace platform::xpc
