#include "platform/xpc/launch/ServiceFolder.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/foundation/base/Ownership.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/base/TrustedPath.h"
#include "platform/xpc/launch/XDGFolders.h"

namespace platform::xpc {

namespace {

/// The name's own bytes, those of the lock files around it and NAME_MAX.
constexpr std::size_t kMaximumNameBytes = 200;
constexpr int kBacklog = 512;
bool isOwnFolder(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid();
}

std::string hostName() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0' && std::strchr(name.data(), '/') == nullptr ? name.data()
                                                                                                                       : "localhost";
}

std::string folderPath() {
  if (const std::string runtime = xdgRuntimeFolder(); !runtime.empty()) return runtime + "/xpc";
  const std::string usual = "/run/user/" + std::to_string(geteuid());
  // The state folder may be shared between machines, sockets are not.
  return isOwnFolder(usual) ? usual + "/xpc" : xdgStateFolder() + "/xpc-" + hostName();
}

std::optional<uid_t> ownerOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? std::optional(status.st_uid) : std::nullopt;
}

std::string remedy() {
  const std::string own = "/run/user/" + std::to_string(geteuid());
  return "; let XDG_RUNTIME_DIR be a folder that belongs to " + userText(geteuid()) + " alone, such as " + own +
         ", or unset it ('sudo -i' does)";
}

/// The address of what an open descriptor stands for, or of a file in the folder that it stands for: through /proc, so that no path is too
/// long for an address (unix(7)).
sockaddr_un addressThrough(int descriptor, const std::string& file = {}) {
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor) + (file.empty() ? "" : "/") + file;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

/// Whether the other end is this user's or root's, by what the kernel knows of whoever made it listen.
bool isTrustedServer(int socket) {
  ucred server{};
  socklen_t size = sizeof server;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &server, &size) != 0) return false;
  return server.uid == geteuid() || server.uid == 0;
}

FileHandle newSocket() { return FileHandle(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

/// Different for different services, so that two launches never use the same temporary name (FNV-1a, 64 bits).
std::string temporaryName(const std::string& name) {
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), ".new-%016llx", static_cast<unsigned long long>(hash));
  return text.data();
}

std::optional<SocketIdentity> identityOf(int folder, const std::string& file) {
  struct stat status {};
  if (fstatat(folder, file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  return SocketIdentity{status.st_dev, status.st_ino, status.st_mtim.tv_sec * 1'000'000'000 + status.st_mtim.tv_nsec};
}

}  // namespace

std::optional<LaunchError> refuseName(const std::string& name) {
  const bool legal = !name.empty() && name.size() <= kMaximumNameBytes && name.front() != '.' && name.find('/') == std::string::npos &&
                     name.find('\0') == std::string::npos;
  if (legal) return std::nullopt;
  return LaunchError{"\"" + name + "\" cannot be a service's name: it must be a file name of 1 to 200 bytes that does not begin with a dot",
                     LaunchError::Kind::IllegalName};
}

Result<ServiceFolder, LaunchError> ServiceFolder::open(bool create) {
  using Kind = LaunchError::Kind;
  const std::string path = folderPath();
  const auto refuse = [&path](Kind kind, const std::string& why) {
    return LaunchError{"the folder of service sockets, " + path + ", cannot be used: " + why + remedy(), kind};
  };
  const std::string runtime = xdgRuntimeFolder();
  if (!runtime.empty()) {
    if (runtime.front() != '/') return refuse(Kind::ForeignFolder, "XDG_RUNTIME_DIR is a relative path");
    // Before anything is made in it: it may be another user's, as after sudo -E, or everybody's.
    if (const auto owner = ownerOf(runtime); owner && *owner != geteuid()) {
      return refuse(Kind::ForeignFolder, "XDG_RUNTIME_DIR belongs to " + userText(*owner) + " and this is " + userText(geteuid()));
    }
  }
  auto opened = openTrustedFolder(path, {.makeFolder = create ? folderMaker(0700) : nullptr});
  if (!opened) {
    const PathRefusal& refusal = opened.error();
    const bool isNone = refusal.error == ENOENT || refusal.error == ENOTDIR;
    return refuse(isNone ? Kind::NoFolder : Kind::ForeignFolder, refusal.reason);
  }
  FileHandle handle = *std::move(opened);
  struct stat status {};
  if (fstat(handle.fileDescriptor(), &status) != 0) return refuse(Kind::ForeignFolder, errnoText(errno));
  if (status.st_uid != geteuid()) return refuse(Kind::ForeignFolder, "it belongs to " + userText(status.st_uid));
  return ServiceFolder(std::move(handle), path);
}

std::optional<SocketIdentity> ServiceFolder::socketIdentity(const std::string& name) const { return identityOf(descriptor(), name); }

Result<FileHandle, int> ServiceFolder::connect(const std::string& name, std::chrono::milliseconds limit) const {
  // Through the file itself, so that no path and no name is too long.
  const FileHandle file(openat(descriptor(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!file.isOpen()) return errno;
  const sockaddr_un address = addressThrough(file.fileDescriptor());
  FileHandle socket = newSocket();
  if (!socket.isOpen()) return errno;
  const auto microseconds = std::max<std::int64_t>(1, std::chrono::microseconds(limit).count());
  const timeval time{.tv_sec = microseconds / 1'000'000, .tv_usec = microseconds % 1'000'000};
  setsockopt(socket.fileDescriptor(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
  int result = 0;
  do {
    result = ::connect(socket.fileDescriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  if (result != 0) return errno;
  if (!isTrustedServer(socket.fileDescriptor())) return EPERM;
  return socket;
}

Result<ServiceFolder::Bound, int> ServiceFolder::bind(const std::string& name) const {
  Bound bound{newSocket(), {}, temporaryName(name)};
  if (!bound.socket.isOpen()) return errno;
  remove(bound.temporaryName);
  const sockaddr_un address = addressThrough(descriptor(), bound.temporaryName);
  if (::bind(bound.socket.fileDescriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return errno;
  const auto identity = identityOf(descriptor(), bound.temporaryName);
  if (!identity || fchmodat(descriptor(), bound.temporaryName.c_str(), 0600, 0) != 0 ||
      listen(bound.socket.fileDescriptor(), kBacklog) != 0) {
    const int error = errno;
    remove(bound.temporaryName);
    return error;
  }
  bound.identity = *identity;
  return bound;
}

// Renamed into place when it listens already: whoever sees the name can connect.
int ServiceFolder::publish(const Bound& bound, const std::string& name) const {
  return renameat(descriptor(), bound.temporaryName.c_str(), descriptor(), name.c_str()) == 0 ? 0 : errno;
}

int ServiceFolder::remove(const std::string& file) const { return unlinkat(descriptor(), file.c_str(), 0) == 0 ? 0 : errno; }

}  // namespace platform::xpc
