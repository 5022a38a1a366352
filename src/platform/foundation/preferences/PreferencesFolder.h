#pragma once

#include <sys/stat.h>

#include <string>
#include <system_error>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/preferences/PreferencesAttributes.h"

namespace platform {

/// The folder of the preferences: ${XDG_CONFIG_HOME:-~/.config}/Preferences. Not made here. Any thread.
std::string preferencesFolder();

/// The folder of the preferences, opened, with what a writer does in it. Every change is told to PreferencesWrites before it is made.
/// Failures are std::system_error whose text names the step.
///
/// Threads: a value of one thread.
class PreferencesFolder {
 public:
  /// Opens the folder at `path`; makes it, and the folders above it, with permissions 0700 when `make` is set. Those that this process made
  /// are then durable. Throws PreferencesFailure (Refused) too, when somebody else could have a hand in it (TrustedPath.h).
  PreferencesFolder(const std::string& path, bool make);

  /// Opens a lock file, and makes it when there is none. It stays for good, is never written to, and is opened for reading, so that taking
  /// it is no change that a watcher would see; `writable` for file systems that demand it.
  [[nodiscard]] FileHandle openLock(const std::string& lockName, bool writable) const;
  /// Whether the lock file that is open still has that name. Throws when it is no regular file.
  [[nodiscard]] bool isCalled(int file, const std::string& name) const;

  /// Writes a new file, gives it the attributes and flushes it. Returns it opened for reading.
  [[nodiscard]] FileHandle write(const std::string& temporaryName, const std::string& bytes, const PreferencesAttributes& attributes) const;
  /// The same with what another file holds.
  [[nodiscard]] FileHandle copy(const std::string& temporaryName, int source, const PreferencesAttributes& attributes) const;
  /// Gives the file its final name, replacing another.
  void rename(const std::string& temporaryName, const std::string& finalName) const;
  /// Renames without replacing; false when the new name is taken.
  [[nodiscard]] bool renameToFree(const std::string& name, const std::string& newName) const;
  /// Removes the file; nothing when there is none.
  void remove(const std::string& name) const;
  /// Removes a file of this writer's kind that nobody uses any more; failures do not matter.
  void removeLeftover(const std::string& name) const noexcept;
  /// Makes the names durable. A file system that cannot is no failure.
  void flush() const;
  /// Of all that is in it but symbolic links that lead nowhere.
  [[nodiscard]] std::vector<std::string> names() const;

  [[nodiscard]] int descriptor() const { return folder_.fileDescriptor(); }
  [[nodiscard]] const struct stat& status() const { return status_; }

 private:
  template <class Fill>
  [[nodiscard]] FileHandle writtenBy(const Fill& fill, const std::string& temporaryName, const PreferencesAttributes& attributes) const;

  FileHandle folder_;
  struct stat status_ {};
};

/// The preferences file at a path, which nobody else can have put there; closed when there is none. Throws as the folder's constructor.
[[nodiscard]] FileHandle openPreferencesForReading(const std::string& path);

/// fsync(2); a file system that cannot is no failure. Throws PreferencesFailure (NotFlushed) with the step.
void flushOrThrow(int descriptor, const std::string& step);

/// Throws std::system_error for the error number, or for errno.
[[noreturn]] void throwError(int error, const std::string& step);
[[noreturn]] void throwLastError(const std::string& step);

}  // namespace platform
