#pragma once

#include <chrono>
#include <string>

#include "platform/foundation/base/Result.h"
#include "platform/xpc/launch/LaunchError.h"
#include "platform/xpc/launch/LockFile.h"
#include "platform/xpc/launch/ServiceFolder.h"
#include "platform/xpc/launch/ServiceLauncher.h"

// Internal to the channel: the two lock files that stand beside a service's socket, and who takes which.
//
//   the life lock    .<name>.lock     The service, from its beginning to its end: whoever has it is the service. Its text is the process's
//                                     mark: number and start time, so that a number left by a killed service is never taken for a living
//                                     process. Everybody else only looks at it.
//   the launch lock  .<name>.launch   Whoever makes or removes the socket, or starts the program, for that time. Its text says which socket
//                                     is ours to remove (LaunchRecord.h).
//
// A service takes the launch lock while it has the life lock; a launcher has the launch lock and does not wait for the life lock with it.
// So nobody waits for somebody who waits for them.
//
// Threads: any. What takes a limit blocks for it.
namespace platform::xpc {

/// Becomes the service, waiting for a former process to be gone. Kind AlreadyServed, with that process's number, when it is not gone within
/// `limit`.
Result<LockFile, LaunchError> takeLifeLock(const ServiceFolder& folder, const std::string& name, std::chrono::milliseconds limit);

/// Who is the service at this moment. Takes nothing.
RunningService holderOfLifeLock(const ServiceFolder& folder, const std::string& name);

/// Whether that process really has the life lock, by the kernel's word.
bool holdsLifeLock(const ServiceFolder& folder, const std::string& name, int process);

/// Opens the launch lock and does not take it.
Result<LockFile, LaunchError> openLaunchLock(const ServiceFolder& folder, const std::string& name);

/// Opens and takes the launch lock. Kind Locked when somebody else has it for longer than `limit`.
Result<LockFile, LaunchError> takeLaunchLock(const ServiceFolder& folder, const std::string& name, std::chrono::milliseconds limit);

}  // namespace platform::xpc
