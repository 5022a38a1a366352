#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/fsevents/event/FSEventStreamTypes.h"

namespace platform::fsevents {

/// By what a folder is found again later: its key, or its path where it has none.
struct FolderReference {
  std::string key;
  std::string path;
  friend auto operator<=>(const FolderReference&, const FolderReference&) = default;
};

/// A place about which the kernel's queue and the disk have not agreed yet: `name` in `folder`.
struct UnsettledPlace {
  FolderReference folder;
  std::string name;
  /// The key of the folder that should be there; empty for whichever is.
  std::string target;
  /// What a folder that is taken up there is told with.
  FSEventStreamEventFlags report = 0;
  /// What is in the folder has not been told yet, since the folder moved while it was read.
  bool isUntold = false;
  /// How often it was looked at in vain since everything had been read.
  int tries = 0;
};

/// The one list of what the kernel's queue and the disk do not agree about yet.
///
/// The tree of folders follows the queue, change by change, so that each change is told at the place where it happened. A look at the disk
/// is ahead of that by what has not been read yet. So what contradicts the tree is not believed at once but put here, and looked at when
/// the queue may have caught up: what is seen then holds if the queue, read to its end after the look, tells of no folder that came, went
/// or moved.
///
/// Threads: owned and used by one thread.
class Unsettled {
 public:
  /// A place that is there already for the same target is kept once, with what either says.
  void add(UnsettledPlace place);
  [[nodiscard]] bool empty() const { return places_.empty(); }
  [[nodiscard]] std::size_t size() const { return places_.size(); }
  /// Whether the folder of this key is to be looked for at another place than this.
  [[nodiscard]] bool hasTarget(std::string_view key, const FolderReference& otherThan, std::string_view name) const;
  /// All of them, those of one target in succession, those of none first; the list is empty then.
  std::vector<UnsettledPlace> take();
  void clear() { places_.clear(); }

 private:
  /// By target, folder and name.
  std::map<std::tuple<std::string, FolderReference, std::string>, UnsettledPlace> places_;
};

}  // namespace platform::fsevents
