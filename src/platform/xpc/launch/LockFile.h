#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/foundation/base/FileHandle.h"

// Internal to the channel: lock files, which stay where they are for good (removing one would let two processes lock two files of one
// name).
namespace platform::xpc {

/// A file that at most one open handle has locked at a time (F_OFD_SETLK, fcntl(2)). The lock ends with the handle, and so with the
/// process. Unlike other locks it can be looked at without being taken. Threads: one at a time.
class LockFile {
 public:
  /// Opens the file in the folder, making it when asked; nothing when that fails, with errno.
  static std::optional<LockFile> open(int folder, const std::string& name, bool create);
  LockFile(LockFile&&) noexcept = default;
  LockFile& operator=(LockFile&&) noexcept = default;
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;
  ~LockFile();

  /// Whether the lock was had within `limit`.
  [[nodiscard]] bool lock(std::chrono::milliseconds limit);
  void unlock();
  /// Whether somebody else holds it.
  [[nodiscard]] bool isHeld() const;

  /// The file's short text.
  [[nodiscard]] std::string text() const;
  bool setText(const std::string& text) const;

 private:
  explicit LockFile(FileHandle handle) : handle_(std::move(handle)) {}
  FileHandle handle_;
  bool locked_ = false;
};

/// The names of a service's two lock files.
std::string lifeLockName(const std::string& service);
std::string launchLockName(const std::string& service);

}  // namespace platform::xpc
