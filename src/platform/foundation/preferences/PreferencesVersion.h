#pragma once

#include <sys/stat.h>

#include <chrono>
#include <string>

#include "platform/foundation/base/FileHandle.h"

namespace platform {

/// Which version of a preferences file was read. The file stays open, so that its inode is not given to another file as long as this is
/// kept: since every writer of ours replaces the file by renaming, an equal device and inode mean an unchanged file. Size and change time
/// are compared too, for the sake of who edits the file where it stands. The kernel's stamps have ticks of some milliseconds; a file that
/// changed in the tick in which it was read may have changed again without another stamp, and counts as unproven until it is read later.
///
/// Also stands for "no file" and, when new, for "never looked". Threads: a constant value may be asked on any thread.
class FileVersion {
 public:
  enum class Answer {
    Same,
    Unproven,   ///< nothing tells of a change, and nothing excludes one
    Different,  ///< it changed, or nobody knows
  };

  FileVersion() = default;
  /// The version that `file` is open on; none when it is not open.
  explicit FileVersion(FileHandle file);

  /// The file at `path`, or the one that is open, compared with this. One stat.
  [[nodiscard]] Answer compare(const std::string& path) const;
  [[nodiscard]] Answer compareOpen() const;
  /// Whether both stand for the same stamps of one file.
  [[nodiscard]] bool hasStampsOf(const FileVersion& other) const;

  /// Whether it was written to since, which says nothing of its name and its links.
  [[nodiscard]] bool hasOtherBytes() const;

  /// Whether there was a file.
  [[nodiscard]] bool exists() const { return file_.isOpen(); }
  /// st_mode, stat(2); 0 when the system did not tell.
  [[nodiscard]] mode_t mode() const { return known_ ? status_.st_mode : 0; }
  [[nodiscard]] int descriptor() const { return file_.fileDescriptor(); }
  /// How long ago the file changed by its own stamp; zero when that lies in the future.
  [[nodiscard]] std::chrono::nanoseconds age() const;

 private:
  bool known_ = false;
  bool proven_ = true;
  FileHandle file_;
  struct stat status_ {};
};

}  // namespace platform
