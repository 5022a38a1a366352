#pragma once

#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"

// Internal to the channel: lock files, which stay where they are for good (removing one would let two processes lock two files of one
// name).
namespace platform::xpc {

/// A file that at most one open handle has locked at a time (F_OFD_SETLK, fcntl(2)). The lock ends with the handle, and so with the
/// process. Unlike other locks it can be looked at without being taken. Threads: one at a time.
class LockFile {
 public:
  /// Opens the file in the folder, making it when asked; an errno value when that fails: EPERM for one that is no regular file, or that
  /// somebody else than this user and root made or may write to.
  static Result<LockFile, int> open(int folder, const std::string& name, bool create);
  LockFile(LockFile&&) noexcept = default;
  LockFile& operator=(LockFile&&) noexcept = default;
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;
  ~LockFile();

  /// What an attempt returns when somebody else holds the lock. 0 when it was had, and any other errno value when the system refused it.
  static constexpr int kHeldBySomebodyElse = EAGAIN;
  /// Tries once, without waiting.
  [[nodiscard]] int tryLock();
  /// Tries until `limit` has passed, for which the caller waits.
  [[nodiscard]] int lock(std::chrono::milliseconds limit);
  void unlock();
  /// Whether somebody else holds it; an errno value when the system does not say.
  [[nodiscard]] Result<bool, int> isHeld() const;

  /// Whether the process holds the lock by this file: what the kernel says of its descriptors (/proc/<pid>/fdinfo). False when that cannot
  /// be read.
  [[nodiscard]] bool isHeldBy(int process) const;

  /// The file's short text.
  [[nodiscard]] std::string text() const;
  /// 0, or an errno value.
  int setText(const std::string& text) const;

 private:
  explicit LockFile(FileHandle handle) : handle_(std::move(handle)) {}
  FileHandle handle_;
  bool locked_ = false;
};

/// The pause between two attempts to take a lock that somebody else holds: contention is rare and short.
inline constexpr std::chrono::milliseconds kLockRetry{5};

}  // namespace platform::xpc
