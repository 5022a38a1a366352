#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <variant>

#include "platform/xpc/launch/LockFile.h"
#include "platform/xpc/launch/ServiceFolder.h"

// Internal to the channel: which sockets are ours. The launch lock file records the socket that was made under it; one that it does not
// record (systemd's) is never removed.
namespace platform::xpc {

/// Makes, records and publishes the service's listening socket, after removing a stale one that is recorded. The caller holds `launchLock`
/// and knows that nobody listens.
std::variant<FileHandle, LaunchError> makeServiceSocket(const ServiceFolder& folder, const LockFile& launchLock, const std::string& name);
/// Removes the service's socket when it is the recorded one, and the record. The caller holds `launchLock`.
void removeServiceSocket(const ServiceFolder& folder, const LockFile& launchLock, const std::string& name);
/// Opens and takes the launch lock.
std::variant<LockFile, LaunchError> takeLaunchLock(const ServiceFolder& folder, const std::string& name, std::chrono::milliseconds limit);

/// What the holder of the life lock writes into it, so that a number left by a killed service is never taken for a living process: pid and
/// start time.
std::string processMark();
/// The marked process while it lives, else 0.
int processOfMark(const std::string& mark);

}  // namespace platform::xpc
