#include "platform/xpc/launch/ServiceLauncher.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "platform/foundation/base/SystemError.h"
#include "platform/xpc/launch/LaunchRecord.h"
#include "platform/xpc/launch/ServiceDescription.h"
#include "platform/xpc/launch/ServiceFolder.h"
#include "platform/xpc/launch/ServiceLocks.h"
#include "platform/xpc/launch/ServiceLogFile.h"
#include "platform/xpc/launch/Spawn.h"

namespace platform::xpc {

namespace {

using Connected = Result<FileHandle, LaunchError>;
using namespace std::chrono_literals;

/// How long somebody else may take to start it.
constexpr auto kLaunchLimit = 60s;

LaunchError connectError(const ServiceFolder& folder, const std::string& name, int error) {
  using Kind = LaunchError::Kind;
  if (error == EAGAIN || error == EINPROGRESS || error == ETIMEDOUT) {
    return {"the service " + name + " does not accept connections; see its log, " + serviceLogFile(name) + ", or end it and try again",
            Kind::NotAccepting};
  }
  if (error == EPERM) {
    return {"whoever listens on the socket " + folder.socketPath(name) +
                " is neither this user nor root, and is not believed; end that process, or remove the file",
            Kind::ForeignServer};
  }
  // There is no socket, or a dead one.
  const bool meansNobody = error == ENOENT || error == ECONNREFUSED;
  return {"the socket " + folder.socketPath(name) + " cannot be connected to: " + errnoText(error),
          meansNobody ? Kind::NobodyListens : Kind::System};
}

Connected connectTo(const ServiceFolder& folder, const std::string& name, std::chrono::milliseconds limit = ServiceFolder::kConnectLimit) {
  auto connected = folder.connect(name, limit);
  if (!connected) return connectError(folder, name, connected.error());
  return std::move(*connected);
}

bool meansNobodyListens(const Connected& connected) { return !connected && connected.error().kind == LaunchError::Kind::NobodyListens; }

LaunchError withoutSocket(const ServiceFolder& folder, const std::string& name, int process) {
  const std::string number = std::to_string(process);
  return {"the service " + name + " runs (process " + number + ") but has no socket at " + folder.socketPath(name) + "; end it (kill " +
              number + ") and try again",
          LaunchError::Kind::WithoutSocket};
}

std::optional<LaunchError> checkProgram(const ServiceDescription& description) {
  struct stat status {};
  int error = stat(description.program.c_str(), &status) == 0 ? 0 : errno;
  if (error == 0 && !S_ISREG(status.st_mode)) error = EACCES;
  if (error == 0 && access(description.program.c_str(), X_OK) != 0) error = errno;
  if (error == 0) return std::nullopt;
  return LaunchError{"the program " + description.program + ", named by " + description.file + ", cannot be run: " + errnoText(error) +
                         "; install the service again",
                     LaunchError::Kind::BadInstallation};
}

/// With the launch lock held and nobody listening.
Connected launch(const ServiceFolder& folder, const LockFile& launchLock, const std::string& name, const ServiceDescription& description) {
  if (auto error = checkProgram(description)) return std::move(*error);
  const auto listener = makeServiceSocket(folder, launchLock, name);
  if (!listener) return listener.error();
  if (const int error = spawnService(description.program, listener->fileDescriptor(), serviceLogFile(name)); error != 0) {
    removeServiceSocket(folder, launchLock, name);
    return LaunchError{"the program " + description.program + " cannot be run: " + errnoText(error), LaunchError::Kind::BadInstallation};
  }
  return connectTo(folder, name);
}

/// One attempt. Kind WithoutSocket when a service that is about to end is in the way.
Connected connectOrLaunch(const ServiceFolder& folder, const std::string& name) {
  auto connected = connectTo(folder, name);
  if (!meansNobodyListens(connected)) return connected;
  // Looked for before anything is made, so that a name that nobody installed leaves no files behind.
  const auto description = findServiceDescription(name);
  if (!description) return description.error();

  const auto lock = takeLaunchLock(folder, name, kLaunchLimit);
  if (!lock) return lock.error();
  // Somebody else may have started it while this caller waited for the lock.
  connected = connectTo(folder, name);
  if (!meansNobodyListens(connected)) return connected;
  const auto former = holderOfLifeLock(folder, name);
  if (!former.problem.empty()) return LaunchError{former.problem};
  if (former.isAlive) return withoutSocket(folder, name, former.processIdentifier);
  return launch(folder, *lock, name, *description);
}

}  // namespace

Connected connectToService(const std::string& name, std::chrono::milliseconds endingLimit) {
  if (auto refused = refuseName(name)) return std::move(*refused);
  const auto folder = ServiceFolder::open(true);
  if (!folder) return folder.error();
  const auto deadline = std::chrono::steady_clock::now() + endingLimit;
  for (;;) {
    auto connected = connectOrLaunch(*folder, name);
    if (connected || connected.error().kind != LaunchError::Kind::WithoutSocket) return connected;
    if (std::chrono::steady_clock::now() >= deadline) return connected;
    std::this_thread::sleep_for(10ms);
  }
}

Connected connectToRunningService(const std::string& name, std::chrono::milliseconds limit) {
  if (auto refused = refuseName(name)) return std::move(*refused);
  const auto folder = ServiceFolder::open(false);
  if (!folder) return folder.error();
  const RunningService running = holderOfLifeLock(*folder, name);
  if (!running.problem.empty()) return LaunchError{running.problem};
  if (!running.isAlive) return LaunchError{"the service " + name + " does not run", LaunchError::Kind::NotRunning};
  return connectTo(*folder, name, limit);
}

std::optional<LaunchError> checkService(const std::string& name) {
  if (auto refused = refuseName(name)) return refused;
  const auto folder = ServiceFolder::open(false);
  if (folder && folder->socketIdentity(name)) return std::nullopt;
  auto description = findServiceDescription(name);
  if (!description) return std::move(description).error();
  return std::nullopt;
}

RunningService runningService(const std::string& name) {
  if (refuseName(name)) return {};
  const auto folder = ServiceFolder::open(false);
  if (folder) return holderOfLifeLock(*folder, name);
  // Without a folder nobody is the service; with one that may not be looked at, who knows.
  return {.problem = folder.error().kind == LaunchError::Kind::NoFolder ? "" : folder.error().reason};
}

bool isHolder(const std::string& name, int process) {
  const auto folder = ServiceFolder::open(false);
  return folder && holdsLifeLock(*folder, name, process);
}

}  // namespace platform::xpc
