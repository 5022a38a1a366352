#include "platform/xpc/launch/LaunchRecord.h"

#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <utility>

namespace platform::xpc {

namespace {

std::string errorText(int number) { return std::generic_category().message(number); }

bool record(const LockFile& lock, const SocketIdentity& identity) {
  std::ostringstream text;
  text << identity.device << ' ' << identity.inode << ' ' << identity.modifiedNanoseconds << '\n';
  return lock.setText(text.str());
}

bool isRecorded(const LockFile& lock, const SocketIdentity& identity) {
  std::istringstream text(lock.text());
  SocketIdentity recorded;
  return (text >> recorded.device >> recorded.inode >> recorded.modifiedNanoseconds) && recorded == identity;
}

/// Field 22 of /proc/<pid>/stat (proc(5)): when the process began, in clock ticks; empty when there is no such process.
std::string startTime(int pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text{std::istreambuf_iterator<char>(file), {}};
  // The second field is the program's name in parentheses and may hold anything.
  const auto end = text.rfind(')');
  if (end == std::string::npos) return {};
  std::istringstream rest(text.substr(end + 1));
  std::string field;
  for (int i = 3; i <= 22; ++i) rest >> field;
  return rest ? field : std::string();
}

}  // namespace

std::variant<LockFile, LaunchError> takeLaunchLock(const ServiceFolder& folder, const std::string& name, std::chrono::milliseconds limit) {
  const std::string file = folder.path() + "/" + launchLockName(name);
  auto lock = LockFile::open(folder.descriptor(), launchLockName(name), true);
  if (!lock) return LaunchError{"the lock file " + file + " cannot be opened: " + errorText(errno)};
  if (!lock->lock(limit)) return LaunchError{"somebody else has held the lock file " + file + " for too long; find out with lslocks(8)"};
  return std::move(*lock);
}

std::variant<FileHandle, LaunchError> makeServiceSocket(const ServiceFolder& folder, const LockFile& launchLock, const std::string& name) {
  const std::string path = folder.socketPath(name);
  if (const auto present = folder.socketIdentity(name)) {
    if (!isRecorded(launchLock, *present)) {
      return LaunchError{"nobody listens on " + path +
                         ", which was made by systemd or by hand and so is not replaced; start its socket unit (systemctl --user start " +
                         name + ".socket) or remove the file"};
    }
    folder.remove(name);
  }
  auto made = folder.bind(name);
  if (const int* error = std::get_if<int>(&made)) return LaunchError{"the socket " + path + " cannot be made: " + errorText(*error)};
  auto& bound = std::get<ServiceFolder::Bound>(made);
  // Recorded before anybody sees it: a launcher that ends here leaves nothing that a later one would not remove.
  int error = record(launchLock, bound.identity) ? 0 : errno;
  if (error == 0) error = folder.publish(bound, name);
  if (error == 0) return std::move(bound.socket);
  folder.remove(bound.temporaryName);
  return LaunchError{"the socket " + path + " cannot be made: " + errorText(error)};
}

void removeServiceSocket(const ServiceFolder& folder, const LockFile& launchLock, const std::string& name) {
  const auto present = folder.socketIdentity(name);
  if (!present || !isRecorded(launchLock, *present)) return;
  folder.remove(name);
  launchLock.setText("");
}

std::string processMark() { return std::to_string(getpid()) + " " + startTime(getpid()) + "\n"; }

int processOfMark(const std::string& mark) {
  std::istringstream text(mark);
  int pid = 0;
  std::string started;
  if (!(text >> pid >> started) || pid <= 0 || startTime(pid) != started) return 0;
  return pid;
}

}  // namespace platform::xpc
