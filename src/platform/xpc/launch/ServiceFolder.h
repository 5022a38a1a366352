#pragma once

#include <optional>
#include <string>
#include <variant>

#include "platform/foundation/base/FileHandle.h"
#include "platform/xpc/launch/ServiceLauncher.h"

// Internal to the channel: where the sockets and lock files are.
namespace platform::xpc {

/// Which socket file is meant, however often the name was reused: creating a file gives it a new modification time that nothing changes
/// afterwards.
struct SocketIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t modifiedNanoseconds = 0;
  friend bool operator==(const SocketIdentity&, const SocketIdentity&) = default;
};

/// The user's folder of service sockets: $XDG_RUNTIME_DIR/xpc, else /run/user/<uid>/xpc where that is ours, else <state home>/xpc-<host>.
/// In it, for each service, the socket `<name>`, the lock file `.<name>.lock` that the service holds while it lives, and `.<name>.launch`,
/// which is locked while somebody starts or removes the socket and records the one that is ours to remove. Threads: a value; its operations
/// are file system calls.
class ServiceFolder {
 public:
  /// Opens the folder, making it (mode 0700) first when asked. It must belong to this user; a mode that lets others in is corrected.
  static std::variant<ServiceFolder, LaunchError> open(bool create);

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string socketPath(const std::string& name) const { return path_ + "/" + name; }
  [[nodiscard]] int descriptor() const { return handle_.fileDescriptor(); }

  [[nodiscard]] std::optional<SocketIdentity> socketIdentity(const std::string& name) const;
  /// A connected stream socket, or errno. Waits, up to a limit, while the backlog is full.
  [[nodiscard]] std::variant<FileHandle, int> connect(const std::string& name) const;
  /// Makes a listening socket of mode 0600 under a temporary name; `publish` gives it its own. Or errno. Under the launch lock only.
  struct Bound {
    FileHandle socket;
    SocketIdentity identity;
    std::string temporaryName;
  };
  [[nodiscard]] std::variant<Bound, int> bind(const std::string& name) const;
  [[nodiscard]] int publish(const Bound& bound, const std::string& name) const;
  int remove(const std::string& file) const;

 private:
  ServiceFolder(FileHandle handle, std::string path) : handle_(std::move(handle)), path_(std::move(path)) {}
  FileHandle handle_;
  std::string path_;
};

/// Why `name` cannot be a service's name; nothing when it can: a file name of at most 200 bytes that does not begin with a dot.
std::optional<LaunchError> refuseName(const std::string& name);

}  // namespace platform::xpc
