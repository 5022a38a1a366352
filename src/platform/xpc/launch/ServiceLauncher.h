#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"
#include "platform/xpc/launch/LaunchError.h"

namespace platform::xpc {

/// A connected, non-blocking socket to the service `name`, which is started when nobody listens: its program is found through the installed
/// service description, its socket is bound here and handed over as systemd would (sd_listen_fds(3)). Of several callers at once, in any
/// number of processes, one starts it. Blocks for the time that takes, and for `endingLimit` at most until a service that is about to end
/// has gone. Any thread but the channel's own.
Result<FileHandle, LaunchError> connectToService(const std::string& name, std::chrono::milliseconds endingLimit = std::chrono::seconds(10));

/// The same without ever starting anything or removing a file, and within `limit` where the service does not accept. Kind NotRunning when
/// nobody is the service; a socket of systemd's, which would start it, is not even called then.
Result<FileHandle, LaunchError> connectToRunningService(const std::string& name,
                                                        std::chrono::milliseconds limit = std::chrono::seconds(30));

/// Why `name` could not be reached at all; nothing when it has a socket or an installed description. Starts nothing.
[[nodiscard]] std::optional<LaunchError> checkService(const std::string& name);

/// Whether a process holds the service's lock file, and which.
struct RunningService {
  bool isAlive = false;
  /// 0 when not alive, or when it did not get to write it yet.
  int processIdentifier = 0;
  /// Why it cannot be told whether there is one; empty when it can.
  std::string problem{};
};
[[nodiscard]] RunningService runningService(const std::string& name);

/// Whether the process holds the service's lock file by what the kernel says, and not only by the file's text.
[[nodiscard]] bool isHolder(const std::string& name, int process);

}  // namespace platform::xpc
