#pragma once

#include <sys/types.h>

#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/foundation/base/FileHandle.h"

namespace platform {

/// The folder of the preferences: ${XDG_CONFIG_HOME:-~/.config}/Preferences. Not made here. Any thread.
std::string preferencesFolder();

/// The lock of one preferences file for as long as this lives. Given back by name, not by closing: a child process that is about to run
/// another program may share the descriptor.
class PreferencesLock {
 public:
  explicit PreferencesLock(FileHandle file) : file_(std::move(file)) {}
  PreferencesLock(PreferencesLock&&) = default;
  PreferencesLock& operator=(PreferencesLock&&) = delete;
  PreferencesLock(const PreferencesLock&) = delete;
  PreferencesLock& operator=(const PreferencesLock&) = delete;
  ~PreferencesLock();

 private:
  FileHandle file_;
};

/// The folder of the preferences, opened, with what a writer does in it. Every change is told to PreferencesWrites before it is made.
/// Failures are std::system_error whose text names the step.
///
/// Threads: a value of one thread.
class PreferencesFolder {
 public:
  /// Opens the folder at `path`; makes it, and the folders above it, with permissions 0700 when `make` is set.
  PreferencesFolder(const std::string& path, bool make);

  /// Takes the lock whose file is called `lockName`, and waits for it. The lock file stays for good, is never written to, and is opened for
  /// reading, so that taking it is no change that a watcher would see.
  [[nodiscard]] PreferencesLock lock(const std::string& lockName) const;

  /// Writes a new file and syncs it. Returns it opened for reading.
  [[nodiscard]] FileHandle write(const std::string& temporaryName, const std::string& bytes) const;
  /// Gives the file its final name, replacing another.
  void rename(const std::string& temporaryName, const std::string& finalName) const;
  /// Renames without replacing; false when the new name is taken.
  [[nodiscard]] bool renameToFree(const std::string& name, const std::string& newName) const;
  /// Removes the file; nothing when there is none.
  void remove(const std::string& name) const;
  /// Removes a file of this writer's kind that nobody uses any more; failures do not matter.
  void removeLeftover(const std::string& name) const noexcept;
  /// Makes the names durable. A file system that cannot is no failure.
  void sync() const;
  [[nodiscard]] std::vector<std::string> names() const;

 private:
  [[nodiscard]] FileHandle openLock(const std::string& lockName) const;
  [[nodiscard]] bool isCalled(const FileHandle& file, const std::string& name) const;
  [[nodiscard]] int descriptor() const { return folder_.fileDescriptor(); }

  FileHandle folder_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

/// Throws std::system_error for the error number, or for errno.
[[noreturn]] void throwError(int error, const std::string& step);
[[noreturn]] void throwLastError(const std::string& step);

}  // namespace platform
