#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fsevents/FSEventStreamTypes.h"
#include "platform/fsevents/HashIndex.h"

namespace platform::fsevents {

/// The bits that say what kind of item a path is.
inline constexpr FSEventStreamEventFlags kAnyItemKind =
    kFSEventStreamEventFlagItemIsFile | kFSEventStreamEventFlagItemIsDir | kFSEventStreamEventFlagItemIsSymlink;

/// One path that changed, not yet delivered.
struct PendingEvent {
  std::string path;
  FSEventStreamEventFlags flags = 0;
  /// Which of the stream's watched trees it belongs to.
  std::uint32_t tree = 0;
  /// What kind of item it is must still be looked up: no change has told it since the last that may have made it another.
  bool needsKind = false;
};

/// Merges the changes of one window by path: the flags of one path are joined, in the order in which the paths first changed. Nothing
/// cancels: an item created and removed keeps both flags. Threads: owned and used by one thread.
class Coalescer {
 public:
  using Clock = std::chrono::steady_clock;

  /// Beyond this many different paths a window is given up for a rescan.
  static constexpr std::size_t kMaximumPaths = 400'000;

  /// Returns a number by which `merge` finds the path again until the next `take`.
  std::size_t add(std::uint32_t tree, std::string_view path, FSEventStreamEventFlags flags, bool needsKind);
  void merge(std::size_t number, FSEventStreamEventFlags flags, bool needsKind);
  [[nodiscard]] bool empty() const { return events_.empty(); }
  [[nodiscard]] bool isFull() const { return events_.size() >= kMaximumPaths; }
  /// When the window's first change was added.
  [[nodiscard]] Clock::time_point opened() const { return opened_; }
  /// Grows with every `take`: numbers of an older epoch are void.
  [[nodiscard]] std::uint64_t epoch() const { return epoch_; }
  [[nodiscard]] std::vector<PendingEvent> take();

 private:
  std::vector<PendingEvent> events_;
  /// The numbers of the events by their paths, so that a path is kept once and found without a further allocation.
  HashIndex byPath_;
  Clock::time_point opened_{};
  std::uint64_t epoch_ = 0;
};

}  // namespace platform::fsevents
