#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/fsevents/engine/EngineWindow.h"
#include "platform/fsevents/engine/HangWatch.h"
#include "platform/fsevents/event/ShownPath.h"
#include "platform/fsevents/status/StreamStatus.h"
#include "platform/fsevents/tree/WatchedTree.h"

namespace platform::fsevents {

/// The trees of one engine: makes them, empties their queues, has them apply what they read, and tidies them when it has been quiet for a
/// while. Threads: owned and used by one thread.
class EngineTrees {
 public:
  using Clock = std::chrono::steady_clock;

  /// `watch` and `watched` are told while a tree looks at the file system.
  EngineTrees(EngineWindow& window, StreamStatus& status, HangWatch& watch, HangWatch::Watched& watched)
      : window_(window), status_(status), watch_(watch), watched_(watched) {}

  WatchedTree& add(TreeOptions options);
  void remove(const WatchedTree& tree);
  void clear();
  [[nodiscard]] bool holds(const WatchedTree* tree) const;
  /// Begins to watch what stands at the tree's path, and has the window know what that is.
  WatchedTree::Attached attach(WatchedTree& tree, FSEventStreamEventFlags report, std::optional<std::uint64_t> since, int& error);
  /// The same for the tree of a mount below a watched path, which nobody else looks after: where it cannot be read now it is tried again by
  /// `process`, ever less often, until it can.
  WatchedTree::Attached attachMount(WatchedTree& tree, FSEventStreamEventFlags report, std::optional<std::uint64_t> since, int& error);
  /// The tree's paths are others now.
  void relocate(WatchedTree& tree, std::string reportedPath, std::string openPath);
  /// Something was mounted on the folder at `relative` in the tree, or is mounted there no longer.
  void coverChanged(WatchedTree& tree, const std::string& relative, bool isCovered);
  /// Calls `visit` for each.
  void forEach(const std::function<void(WatchedTree&)>& visit) const;

  /// The path of the first, for what is looked at for all of them.
  [[nodiscard]] std::string firstPath() const;

  /// Empties all kernel queues. True when there was anything.
  bool drain();
  /// Applies what was read and does what is due.
  void process();
  /// Empties the queues and applies everything that can be applied at once.
  void processAll();
  [[nodiscard]] bool hasBacklog() const;
  /// The earliest of the trees' (WatchedTree::seenUpTo).
  [[nodiscard]] std::uint64_t seenUpTo(std::uint64_t time) const;
  /// When `process` has something to do without any change.
  [[nodiscard]] std::optional<Clock::time_point> due() const;
  /// Whether a folder has moved since the last call.
  bool takeMovedFolders();
  /// Places in trees where something was found to be mounted since the last call.
  struct Covered {
    WatchedTree* tree;
    std::string relative;
  };
  [[nodiscard]] std::vector<Covered> takeCovered();

  /// Something came: tidying waits until it has been quiet again.
  void notQuiet();
  void tidyIfQuiet();
  [[nodiscard]] std::optional<Clock::time_point> tidyAt() const { return tidyAt_; }

  /// Adds what is to be waited for.
  void addDescriptors(std::vector<pollfd>& queues) const;

 private:
  struct Entry {
    std::uint32_t number;
    std::unique_ptr<WatchedTree> tree;
    /// At once, so that what was drained while it was attached is applied.
    std::optional<Clock::time_point> due = Clock::time_point::min();
    bool drained = false;
    /// When the tree of a mount that could not be read is tried again.
    std::optional<Clock::time_point> attachAt = std::nullopt;
    std::chrono::seconds attachPause{0};
  };
  static void planAttaching(Entry& entry, WatchedTree::Attached attached, int error);
  void attachAgain(Entry& entry);

  EngineWindow& window_;
  StreamStatus& status_;
  HangWatch& watch_;
  HangWatch::Watched& watched_;
  std::vector<Entry> entries_;
  std::optional<Clock::time_point> tidyAt_;
  std::chrono::milliseconds tidyBackoff_{0};
};

/// The path that stands for a tree in what people and callers are told.
inline const std::string& shownPath(const TreeOptions& options) { return shownPath(options.reportedPath); }

}  // namespace platform::fsevents
