#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace platform::fsevents {

/// The renames of folders that one reading of a kernel queue has told so far, for a queue that merges a change with an equal one which is
/// still unread: a folder that goes from A to B, back to A, and to B again is told to have gone to B and to A, since its last rename is
/// part of the first. So after every rename it may be where earlier ones lead from there, and no word will come of that.
///
/// Threads: owned and used by one thread.
class RenameTrail {
 public:
  /// A name in a folder of this key.
  struct Place {
    std::string folder;
    std::string name;
    friend auto operator<=>(const Place&, const Place&) = default;
  };

  /// The folder of the key `target` is told to have gone from one place to another. Returns where repeats of renames that were told
  /// earlier may have taken it from there, not always all of it; nearly always nothing.
  std::vector<Place> follow(std::string_view target, Place from, const Place& to);
  /// All that was merged has been told.
  void clear() { renames_.clear(); }
  [[nodiscard]] bool empty() const { return renames_.empty(); }

 private:
  /// By the folder and the place that it left.
  std::multimap<std::pair<std::string, Place>, Place> renames_;
};

}  // namespace platform::fsevents
