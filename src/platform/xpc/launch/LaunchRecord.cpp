#include "platform/xpc/launch/LaunchRecord.h"

#include <sstream>
#include <utility>

#include "platform/foundation/base/SystemError.h"
#include "platform/xpc/launch/ServiceLocks.h"

namespace platform::xpc {

namespace {

int record(const LockFile& lock, const SocketIdentity& identity) {
  std::ostringstream text;
  text << identity.device << ' ' << identity.inode << ' ' << identity.modifiedNanoseconds << '\n';
  return lock.setText(text.str());
}

bool isRecorded(const LockFile& lock, const SocketIdentity& identity) {
  std::istringstream text(lock.text());
  SocketIdentity recorded;
  return (text >> recorded.device >> recorded.inode >> recorded.modifiedNanoseconds) && recorded == identity;
}

LaunchError cannotBeMade(const std::string& path, int error) { return {"the socket " + path + " cannot be made: " + errnoText(error)}; }

}  // namespace

Result<FileHandle, LaunchError> makeServiceSocket(const ServiceFolder& folder, const LockFile& launchLock, const std::string& name) {
  const std::string path = folder.socketPath(name);
  if (const auto present = folder.socketIdentity(name)) {
    if (!isRecorded(launchLock, *present)) {
      return LaunchError{
          "nobody listens on " + path +
              ", which was made by systemd or by hand and so is not replaced; start its socket unit (systemctl --user start " + name +
              ".socket) or remove the file",
          LaunchError::Kind::ForeignSocket};
    }
    folder.remove(name);
  }
  auto bound = folder.bind(name);
  if (!bound) return cannotBeMade(path, bound.error());
  // Recorded before anybody sees it: a launcher that ends here leaves nothing that a later one would not remove.
  int error = record(launchLock, bound->identity);
  if (error == 0) error = folder.publish(*bound, name);
  if (error == 0) return std::move(bound->socket);
  folder.remove(bound->temporaryName);
  return cannotBeMade(path, error);
}

Result<FileHandle, LaunchError> makeOwnSocket(const ServiceFolder& folder, const std::string& name, std::chrono::milliseconds limit) {
  auto lock = takeLaunchLock(folder, name, limit);
  if (!lock) return std::move(lock).error();
  if (folder.connect(name)) {
    return LaunchError{"somebody else listens on " + folder.socketPath(name), LaunchError::Kind::AlreadyServed};
  }
  return makeServiceSocket(folder, *lock, name);
}

void removeServiceSocket(const ServiceFolder& folder, const LockFile& launchLock, const std::string& name) {
  const auto present = folder.socketIdentity(name);
  if (!present || !isRecorded(launchLock, *present)) return;
  folder.remove(name);
  launchLock.setText("");
}

}  // namespace platform::xpc
