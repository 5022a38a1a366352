#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace kestrine::test {

/// What a file system lets a watcher do, as tried out on it. The texts are the cells of a table for people: "yes", "no", or what was
/// refused.
struct FileSystemAbilities {
  /// A folder's mark is taken, and a change in the folder is told by it.
  std::string fanotify;
  /// A folder has a handle: one that a file can be opened by, or one that only tells it from others.
  std::string handles;
  /// A rename is one event with both places and the item's own handle.
  std::string wholeRenames;
  std::string inotify;
  /// A folder's link count is two more than its number of subfolders, also for the root and when they go again.
  std::string countsLinks;
  /// The finest time that can be set.
  std::string times;
  std::chrono::nanoseconds timeStep{};
  /// A renamed folder's change time moves.
  std::string stampsRenames;

  /// The cells in this order, without the name.
  [[nodiscard]] std::vector<std::string> cells() const;
};

/// Tries it all out in `root`, the root of a mounted file system; takes some seconds where times are coarse. With `former`, another folder
/// (of the same file system, as the kernel sees it) is marked in the same queue first. Throws std::runtime_error where a plain change of a
/// file is refused.
FileSystemAbilities probeFileSystem(const std::string& root, const std::string& former = "");

/// Whether two changes of a file in `folder` that are `step` apart have different change times.
bool tellsApart(const std::string& folder, std::chrono::nanoseconds step);

}  // namespace kestrine::test
