#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"
#include "platform/xpc/launch/LaunchError.h"

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
/// In it, for each service, the socket `<name>` and two lock files (ServiceLocks.h). Threads: a value; its operations are file system
/// calls.
class ServiceFolder {
 public:
  /// Opens the folder, making it (mode 0700) first when asked. It must belong to this user, and so must the runtime folder; nobody else may
  /// have a hand in the way to it (TrustedPath.h). Nothing is made or changed where that is not so. Kinds NoFolder and ForeignFolder.
  static Result<ServiceFolder, LaunchError> open(bool create);

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string socketPath(const std::string& name) const { return path_ + "/" + name; }
  [[nodiscard]] int descriptor() const { return handle_.fileDescriptor(); }

  [[nodiscard]] std::optional<SocketIdentity> socketIdentity(const std::string& name) const;
  /// A connected stream socket, or an errno value: EPERM when whoever listens is neither this user nor root. Waits up to `limit` while the
  /// backlog is full.
  [[nodiscard]] Result<FileHandle, int> connect(const std::string& name, std::chrono::milliseconds limit = kConnectLimit) const;
  /// How long a caller waits for a service that is too busy to accept.
  static constexpr std::chrono::seconds kConnectLimit{30};
  /// Makes a listening socket of mode 0600 under a temporary name; `publish` gives it its own. Both under the launch lock only.
  struct Bound {
    FileHandle socket;
    SocketIdentity identity;
    std::string temporaryName;
  };
  [[nodiscard]] Result<Bound, int> bind(const std::string& name) const;
  /// 0, or an errno value; so does `remove`.
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
