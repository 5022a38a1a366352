#pragma once

#include <sys/stat.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"
#include "platform/foundation/value/Object.h"

namespace platform {

class PreferencesFolder;

/// Which version of a preferences file was read. The file stays open, so that its inode is not given to another file as long as this is
/// kept: since every writer replaces the file by renaming, an equal device and inode mean an unchanged file. (Size and change time are
/// compared too, for the sake of people who edit the file where it stands.) Also stands for "no file" and, when new, for "never looked".
class FileVersion {
 public:
  FileVersion() = default;
  /// The version that `file` is open on; none when it is not open.
  explicit FileVersion(FileHandle file);

  /// Whether the file at `path` is still this version. One stat.
  [[nodiscard]] bool isStillAt(const std::string& path) const;
  /// Whether there was a file.
  [[nodiscard]] bool exists() const { return file_.isOpen(); }

 private:
  bool known_ = false;
  FileHandle file_;
  struct stat status_ {};
};

/// The file of one domain: reading it, and changing it under its lock.
///
/// Threads: any thread may call anything; writers of the same file exclude each other across threads and processes.
class PreferencesFile {
 public:
  struct Contents {
    /// A dictionary; nil when there is no file.
    Object values;
    FileVersion version;
    /// What is wrong with the file that stood there; empty when nothing is. It counts as no file.
    std::string damage = {};
  };
  /// What the file is to hold, given what it holds: a dictionary, nil for no file, or nullopt to leave it.
  using Change = std::function<std::optional<Object>(const Object& values)>;

  PreferencesFile(std::string folder, std::string_view domain);

  [[nodiscard]] const std::string& path() const { return path_; }

  /// What is on disk now. A file that is no property list is moved aside, which the log says, and counts as none. The error that names the
  /// step, when a file is there and cannot be read.
  [[nodiscard]] Result<Contents, std::system_error> read() const;
  /// The same with the error in the log, once per reason.
  [[nodiscard]] std::optional<Contents> readOrSay() const;

  /// Changes the file under its lock. Returns what is on disk afterwards, or nullopt, with the reason in the log, when it could not be read
  /// or written; the old file is untouched then. Exceptions of `change` pass.
  std::optional<Contents> update(const Change& change) const;

 private:
  struct Unusable {
    std::string why;
  };

  [[nodiscard]] Contents load(std::optional<Unusable>* unusable) const;
  [[nodiscard]] Contents loadLocked(const PreferencesFolder& folder) const;
  [[nodiscard]] FileVersion replace(const PreferencesFolder& folder, const std::string& bytes) const;
  void setAside(const PreferencesFolder& folder, const std::string& why) const;
  void removeLeftovers(const PreferencesFolder& folder) const;
  void failed(bool writing, const std::string& reason) const;

  const std::string folder_;
  const std::string name_;
  const std::string path_;
};

}  // namespace platform
