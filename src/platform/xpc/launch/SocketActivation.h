#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"
#include "platform/xpc/launch/LaunchError.h"

// Internal to the channel: how a listening socket is handed to a service, in systemd's way (sd_listen_fds(3)): as descriptor 3, with
// LISTEN_FDS and LISTEN_PID in the environment, which say how many descriptors there are and for which process. Both ends are here: what
// the service takes, whether systemd or a client started it, and what a client gives.
namespace platform::xpc {

/// The descriptor that the socket is handed over as, the first after the standard streams.
inline constexpr int kHandedOverDescriptor = 3;

/// The service's end: the listening socket when there is one for this process, else a closed handle. Its variables are removed, so that no
/// child takes them for its own. An error when the descriptor is something else. Once, while the process has one thread.
Result<FileHandle, LaunchError> takeHandedOverSocket();

/// The launcher's end: whether an entry ("NAME=value") of the launcher's own environment is about a hand-over to the launcher, and so not
/// for the service.
bool isAboutHandOver(std::string_view entry);

/// The launcher's end: adds what tells the service of one handed-over socket. The last entry has room for the service's process number,
/// which nobody knows before the fork.
void addHandOver(std::vector<std::string>& environment);

/// In the service's process before its exec: writes its number into the last entry that `addHandOver` added. Async-signal-safe.
void putOwnProcess(char* lastEntry) noexcept;

}  // namespace platform::xpc
