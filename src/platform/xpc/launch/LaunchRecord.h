#pragma once

#include <chrono>
#include <string>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"
#include "platform/xpc/launch/LaunchError.h"
#include "platform/xpc/launch/LockFile.h"
#include "platform/xpc/launch/ServiceFolder.h"

// Internal to the channel: which sockets are ours. The launch lock file records the socket that was made under it; one that it does not
// record (systemd's) is never removed. Threads: any.
namespace platform::xpc {

/// Makes, records and publishes the service's listening socket, after removing a stale one that is recorded. The caller holds `launchLock`
/// and knows that nobody listens.
Result<FileHandle, LaunchError> makeServiceSocket(const ServiceFolder& folder, const LockFile& launchLock, const std::string& name);

/// The same for a service to which no socket was handed over: takes the launch lock, for which it waits up to `limit`. Kind AlreadyServed
/// when somebody else listens.
Result<FileHandle, LaunchError> makeOwnSocket(const ServiceFolder& folder, const std::string& name, std::chrono::milliseconds limit);

/// Removes the service's socket when it is the recorded one, and the record. The caller holds `launchLock`.
void removeServiceSocket(const ServiceFolder& folder, const LockFile& launchLock, const std::string& name);

}  // namespace platform::xpc
