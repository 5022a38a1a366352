#include "platform/xpc/launch/ServiceLauncher.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/xpc/launch/Environment.h"
#include "platform/xpc/launch/LaunchRecord.h"
#include "platform/xpc/launch/ServiceDescription.h"
#include "platform/xpc/launch/ServiceFolder.h"
#include "platform/xpc/launch/Spawn.h"

namespace platform::xpc {

namespace {

using Connected = std::variant<FileHandle, LaunchError>;
using namespace std::chrono_literals;

/// How long a service that is about to end may take to be gone, and how long somebody else may take to start it.
constexpr auto kEndingLimit = 10s;
constexpr auto kLaunchLimit = 60s;

std::string errorText(int number) { return std::generic_category().message(number); }

LaunchError connectError(const ServiceFolder& folder, const std::string& name, int error) {
  if (error == EAGAIN || error == EINPROGRESS || error == ETIMEDOUT) {
    return {"the service " + name + " does not accept connections; see its log, " + logFile(name) + ", or end it and try again"};
  }
  return {"the socket " + folder.socketPath(name) + " cannot be connected to: " + errorText(error)};
}

/// Nobody listens: there is no socket, or a dead one.
bool meansNobody(int error) { return error == ENOENT || error == ECONNREFUSED; }

RunningService runningIn(const ServiceFolder& folder, const std::string& name) {
  const auto lock = LockFile::open(folder.descriptor(), lifeLockName(name), false);
  if (!lock || !lock->isHeld()) return {};
  return {.isAlive = true, .processIdentifier = processOfMark(lock->text())};
}

std::optional<LaunchError> checkProgram(const ServiceDescription& description) {
  struct stat status {};
  int error = stat(description.program.c_str(), &status) == 0 ? 0 : errno;
  if (error == 0 && !S_ISREG(status.st_mode)) error = EACCES;
  if (error == 0 && access(description.program.c_str(), X_OK) != 0) error = errno;
  if (error == 0) return std::nullopt;
  return LaunchError{"the program " + description.program + ", named by " + description.file + ", cannot be run: " + errorText(error) +
                     "; install the service again"};
}

/// With the launch lock held and nobody listening.
Connected launch(const ServiceFolder& folder, const LockFile& launchLock, const std::string& name, const ServiceDescription& description) {
  if (auto error = checkProgram(description)) return std::move(*error);
  auto made = makeServiceSocket(folder, launchLock, name);
  if (std::holds_alternative<LaunchError>(made)) return made;
  const FileHandle listener = std::move(std::get<FileHandle>(made));
  if (const auto failure = spawnService(description.program, listener.fileDescriptor(), logFile(name))) {
    removeServiceSocket(folder, launchLock, name);
    return LaunchError{"the program " + description.program + " cannot be run: " + *failure};
  }
  auto connected = folder.connect(name);
  if (const int* error = std::get_if<int>(&connected)) return connectError(folder, name, *error);
  return std::move(std::get<FileHandle>(connected));
}

/// One attempt: a socket, an error, or nothing when a service that is about to end is in the way.
std::optional<Connected> connectOrLaunch(const ServiceFolder& folder, const std::string& name) {
  auto connected = folder.connect(name);
  if (auto* socket = std::get_if<FileHandle>(&connected)) return std::move(*socket);
  if (!meansNobody(std::get<int>(connected))) return connectError(folder, name, std::get<int>(connected));
  // Looked for before anything is made, so that a name that nobody installed leaves no files behind.
  const auto description = findServiceDescription(name);
  if (const auto* error = std::get_if<LaunchError>(&description)) return *error;

  auto lock = takeLaunchLock(folder, name, kLaunchLimit);
  if (auto* error = std::get_if<LaunchError>(&lock)) return std::move(*error);
  // Somebody else may have started it while this caller waited for the lock.
  connected = folder.connect(name);
  if (auto* socket = std::get_if<FileHandle>(&connected)) return std::move(*socket);
  if (!meansNobody(std::get<int>(connected))) return connectError(folder, name, std::get<int>(connected));
  if (runningIn(folder, name).isAlive) return std::nullopt;
  return launch(folder, std::get<LockFile>(lock), name, std::get<ServiceDescription>(description));
}

}  // namespace

Connected connectToService(const std::string& name) {
  if (auto refused = refuseName(name)) return std::move(*refused);
  const auto opened = ServiceFolder::open(true);
  if (const auto* error = std::get_if<LaunchError>(&opened)) return *error;
  const auto& folder = std::get<ServiceFolder>(opened);
  const auto deadline = std::chrono::steady_clock::now() + kEndingLimit;
  for (;;) {
    if (auto result = connectOrLaunch(folder, name)) return std::move(*result);
    if (std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(10ms);
  }
  const int pid = runningIn(folder, name).processIdentifier;
  return LaunchError{"the service " + name + " runs (process " + std::to_string(pid) + ") but has no socket at " + folder.socketPath(name) +
                     "; end it (kill " + std::to_string(pid) + ") and try again"};
}

Connected connectToRunningService(const std::string& name) {
  if (auto refused = refuseName(name)) return std::move(*refused);
  const auto opened = ServiceFolder::open(false);
  if (const auto* error = std::get_if<LaunchError>(&opened)) return *error;
  const auto& folder = std::get<ServiceFolder>(opened);
  // A socket of systemd's would start the service, so a service that is not there is not even called.
  if (!runningIn(folder, name).isAlive) return LaunchError{"the service " + name + " does not run"};
  auto connected = folder.connect(name);
  if (const int* error = std::get_if<int>(&connected)) return connectError(folder, name, *error);
  return std::move(std::get<FileHandle>(connected));
}

std::variant<std::monostate, LaunchError> checkService(const std::string& name) {
  if (auto refused = refuseName(name)) return std::move(*refused);
  const auto opened = ServiceFolder::open(false);
  const auto* folder = std::get_if<ServiceFolder>(&opened);
  if (folder != nullptr && folder->socketIdentity(name)) return std::monostate{};
  const auto description = findServiceDescription(name);
  if (const auto* error = std::get_if<LaunchError>(&description)) return *error;
  return std::monostate{};
}

RunningService runningService(const std::string& name) {
  if (refuseName(name)) return {};
  const auto opened = ServiceFolder::open(false);
  const auto* folder = std::get_if<ServiceFolder>(&opened);
  return folder != nullptr ? runningIn(*folder, name) : RunningService{};
}

}  // namespace platform::xpc
