#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fsevents/event/FSEventStreamTypes.h"
#include "platform/fsevents/event/HashIndex.h"

namespace platform::fsevents {

/// The bits that say what kind of item a path is.
inline constexpr FSEventStreamEventFlags kAnyItemKind =
    kFSEventStreamEventFlagItemIsFile | kFSEventStreamEventFlagItemIsDir | kFSEventStreamEventFlagItemIsSymlink;

/// One path that changed, not yet delivered.
struct PendingEvent {
  std::string path;
  FSEventStreamEventFlags flags = 0;
  /// Which of the engine's trees it belongs to.
  std::uint32_t tree = 0;
  /// What kind of item it is must still be looked up: no change has told it since the last that may have made it another.
  bool needsKind = false;
};

/// Merges the changes of one window by path: the flags of one path are joined, in the order in which the paths first changed. Nothing
/// cancels: an item created and removed keeps both flags.
///
/// A window is bounded in bytes, whoever adds to it and however much at once. At the bound the tree that takes up most of it is given up:
/// its path is told with MustScanSubDirs and UserDropped and stays one event until the window is taken. The other trees lose nothing, and
/// of the one only what a rescan finds: that a watched path has come to mean something else, or a mount has come or gone, is kept.
///
/// Threads: owned and used by one thread.
class Coalescer {
 public:
  using Clock = std::chrono::steady_clock;

  /// What a window may take up, about: some 400,000 paths of usual length.
  static constexpr std::size_t kMaximumBytes = std::size_t{64} << 20U;
  /// The number of what was not kept, because a rescan of its tree is told instead.
  static constexpr std::size_t kNone = ~std::size_t{0};

  explicit Coalescer(std::size_t maximumBytes = kMaximumBytes) : maximumBytes_(maximumBytes) {}

  /// A number for a tree that will add. One whose path is not told is never given up.
  std::uint32_t addTree();
  /// Says which path stands for the tree when it is given up, and which flags are told of it besides. Again when that has changed.
  void setRoot(std::uint32_t tree, std::string path, FSEventStreamEventFlags kind);
  /// The tree is no more. What it has added is told all the same; its number is given again when the window has been taken.
  void removeTree(std::uint32_t tree);

  /// Returns a number by which `merge` finds the path again while `epoch` stays the same.
  std::size_t add(std::uint32_t tree, std::string_view path, FSEventStreamEventFlags flags, bool needsKind);
  void merge(std::size_t number, FSEventStreamEventFlags flags, bool needsKind);
  [[nodiscard]] bool empty() const { return events_.empty(); }
  /// When the window's first change was added.
  [[nodiscard]] Clock::time_point opened() const { return opened_; }
  /// Grows when numbers become void: with every `take`, and when a tree is given up.
  [[nodiscard]] std::uint64_t epoch() const { return epoch_; }
  [[nodiscard]] std::size_t bytes() const { return bytes_; }
  [[nodiscard]] std::vector<PendingEvent> take();
  /// The paths of the trees that were given up since the last call: each is a loss to be told of.
  [[nodiscard]] std::vector<std::string> takeGivenUp();

 private:
  struct Tree {
    std::string root;
    FSEventStreamEventFlags kind = 0;
    std::size_t bytes = 0;
    bool isKnown = false;
    bool isGivenUp = false;
    bool isRemoved = false;
  };
  std::size_t insert(std::uint32_t hash, std::uint32_t tree, std::string_view path, FSEventStreamEventFlags flags, bool needsKind);
  void giveUpLargest();
  void giveUp(std::uint32_t number);
  Tree& tree(std::uint32_t number);

  const std::size_t maximumBytes_;
  std::vector<PendingEvent> events_;
  /// The numbers of the events by their paths, so that a path is kept once and found without a further allocation.
  HashIndex byPath_;
  std::vector<Tree> trees_;
  std::vector<std::uint32_t> free_;
  std::size_t bytes_ = 0;
  std::vector<std::string> givenUp_;
  Clock::time_point opened_{};
  std::uint64_t epoch_ = 0;
};

}  // namespace platform::fsevents
