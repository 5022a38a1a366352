#include "platform/xpc/launch/ServiceLocks.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/log/Log.h"

namespace platform::xpc {

namespace {

std::string lifeLockName(const std::string& service) { return "." + service + ".lock"; }
std::string launchLockName(const std::string& service) { return "." + service + ".launch"; }

/// Field 22 of /proc/<pid>/stat (proc(5)): when the process began, in clock ticks; empty when there is no such process.
std::string startTime(int pid) {
  constexpr std::size_t kMaximumStatBytes = 4096;
  const FileHandle file(open(("/proc/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.isOpen()) return {};
  const auto text = readAll(file.fileDescriptor(), kMaximumStatBytes);
  // The second field is the program's name in parentheses and may hold anything.
  const auto end = text ? text->rfind(')') : std::string::npos;
  if (end == std::string::npos) return {};
  std::istringstream rest(text->substr(end + 1));
  std::string field;
  for (int i = 3; i <= 22; ++i) rest >> field;
  return rest ? field : std::string();
}

std::string ownMark() { return std::to_string(getpid()) + " " + startTime(getpid()) + "\n"; }

/// The marked process while it lives, else 0.
int processOfMark(const std::string& mark) {
  std::istringstream text(mark);
  int pid = 0;
  std::string started;
  if (!(text >> pid >> started) || pid <= 0 || startTime(pid) != started) return 0;
  return pid;
}

LaunchError cannot(const std::string& what, const std::string& path, int error) {
  const std::string why = error == EPERM ? "it is not this user's alone" : errnoText(error);
  return LaunchError{"the lock file " + path + " cannot be " + what + ": " + why};
}

}  // namespace

Result<LockFile, LaunchError> takeLifeLock(const ServiceFolder& folder, const std::string& name, std::chrono::milliseconds limit) {
  const std::string path = folder.path() + "/" + lifeLockName(name);
  auto lock = LockFile::open(folder.descriptor(), lifeLockName(name), true);
  if (!lock) return cannot("opened", path, lock.error());
  if (const int error = lock->lock(limit); error == LockFile::kHeldBySomebodyElse) {
    return LaunchError{"process " + std::to_string(processOfMark(lock->text())) + " is the service " + name + " already",
                       LaunchError::Kind::AlreadyServed};
  } else if (error != 0) {
    return cannot("locked", path, error);
  }
  lock->setText(ownMark());
  return std::move(*lock);
}

RunningService holderOfLifeLock(const ServiceFolder& folder, const std::string& name) {
  const auto lock = LockFile::open(folder.descriptor(), lifeLockName(name), false);
  const std::string path = folder.path() + "/" + lifeLockName(name);
  if (!lock) return {.problem = lock.error() == ENOENT ? "" : cannot("opened", path, lock.error()).reason};
  const auto held = lock->isHeld();
  // Then starting it fails too, and says so to whoever wants that.
  if (!held) NSLog("xpc: " + cannot("looked at", path, held.error()).reason);
  if (!held) return {.problem = cannot("looked at", path, held.error()).reason};
  if (!*held) return {};
  return {.isAlive = true, .processIdentifier = processOfMark(lock->text())};
}

bool holdsLifeLock(const ServiceFolder& folder, const std::string& name, int process) {
  const auto lock = LockFile::open(folder.descriptor(), lifeLockName(name), false);
  return lock && lock->isHeldBy(process);
}

Result<LockFile, LaunchError> openLaunchLock(const ServiceFolder& folder, const std::string& name) {
  auto lock = LockFile::open(folder.descriptor(), launchLockName(name), true);
  if (lock) return std::move(*lock);
  return cannot("opened", folder.path() + "/" + launchLockName(name), lock.error());
}

Result<LockFile, LaunchError> takeLaunchLock(const ServiceFolder& folder, const std::string& name, std::chrono::milliseconds limit) {
  auto lock = openLaunchLock(folder, name);
  if (!lock) return lock;
  const std::string path = folder.path() + "/" + launchLockName(name);
  const int error = lock->lock(limit);
  if (error == LockFile::kHeldBySomebodyElse) {
    return LaunchError{"somebody else has held the lock file " + path + " for too long; find out with lslocks(8)",
                       LaunchError::Kind::Locked};
  }
  if (error != 0) return cannot("locked", path, error);
  return lock;
}

}  // namespace platform::xpc
