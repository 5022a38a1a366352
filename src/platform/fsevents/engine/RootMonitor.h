#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/base/FileHandle.h"

namespace platform::fsevents {

/// What stands at a watched path.
struct RootIdentity {
  bool exists = false;
  dev_t device = 0;
  ino_t inode = 0;
  /// The file handle, or the time of birth where there is none: a new folder often gets the inode number of one that was just removed.
  std::string incarnation;
  friend bool operator==(const RootIdentity&, const RootIdentity&) = default;
};

/// Notices when watched paths come to mean something else: when the path itself, a folder above it or a symbolic link on the way is
/// removed, renamed or replaced, and when a missing one appears.
///
/// Of a path that exists only the removal and the move of its own components are watched, so whatever else happens in the folders above
/// wakes nobody. Of a missing path the deepest folder that exists is watched for the name that is missing. A folder that somebody holds
/// open tells of its removal only when it is let go, so a folder that may be empty, which alone can be removed, is guarded: the folder
/// above it is watched for the loss of its name. It uses inotify with either source of changes, since the components may lie on file
/// systems that fanotify cannot join; a component that cannot be watched is polled.
///
/// Threads: owned and used by one thread.
class RootMonitor {
 public:
  explicit RootMonitor(std::vector<std::string> paths);

  /// Whether a path is looked at at all; each is at first. One that is not counts as missing from the next `arm` on.
  void setLooked(std::size_t path, bool isLooked) { isLooked_[path] = isLooked; }

  /// Watches every path anew as it stands now and returns what stands there.
  const std::vector<RootIdentity>& arm();
  /// What stood at the path of this number when it was looked at last.
  [[nodiscard]] const RootIdentity& identity(std::size_t path) const { return identities_[path]; }
  /// False when the paths changed faster than the last `arm` could look: `arm` again soon, for what was missed is told by nobody.
  [[nodiscard]] bool isSettled() const { return isSettled_; }
  /// The descriptor to wait for; -1 when everything must be polled.
  [[nodiscard]] int descriptor() const { return queue_.fileDescriptor(); }
  /// Reads what was told. True when a path may mean something else now: then `arm` again.
  bool read();
  /// Whether the folder at the path of this number has become empty, or is another already, so that `arm` must look again. Ask when an item
  /// of it was removed.
  [[nodiscard]] bool needsGuard(std::size_t path) const;
  /// Whether the last `read` told of a component of the path of this number.
  [[nodiscard]] bool wasTouched(std::size_t path) const { return touched_.contains(path); }
  /// The same of a component that was moved (not removed).
  [[nodiscard]] bool wasMoved(std::size_t path) const { return moved_.contains(path); }
  /// The components that cannot be watched; while there are any, `arm` from time to time.
  [[nodiscard]] const std::vector<std::string>& polled() const { return polled_; }

 private:
  void armPath(std::size_t number, RootIdentity& identity);
  void watchComponent(std::size_t number, const std::string& path, std::uint32_t mask);
  void notWatched(const std::string& path, int error);
  void awaitName(std::size_t number, const std::string& folder, const std::string& name);
  void guard(std::size_t number, const std::string& folder);

  std::vector<std::string> paths_;
  std::vector<bool> isLooked_;
  std::vector<RootIdentity> identities_;
  FileHandle queue_;
  /// Paths that a watch stands for, and names in the folder of a watch whose coming or going matters.
  std::multimap<int, std::size_t> watched_;
  std::multimap<int, std::string> awaited_;
  /// The guarded folders, by the numbers of their paths.
  std::multimap<std::size_t, std::string> guarded_;
  std::set<std::size_t> touched_;
  std::set<std::size_t> moved_;
  std::vector<std::string> polled_;
  bool isSettled_ = true;
};

}  // namespace platform::fsevents
