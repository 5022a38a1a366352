#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/fsevents/ChangeSource.h"
#include "platform/fsevents/Coalescer.h"
#include "platform/fsevents/DirectoryTree.h"
#include "platform/fsevents/FSEventStream.h"
#include "platform/fsevents/StreamStatus.h"
#include "platform/fsevents/TreeOptions.h"

namespace platform::fsevents {

/// One watched path with everything below it: marks its folders, keeps their tree true to the changes that the kernel tells, and turns
/// those changes into pending events. It has kernel queues of its own, so a storm or a loss in one watched path touches no other.
///
/// A folder is marked first and listed after, so nothing that happens in it in the meantime is missed. Changes are applied in the order of
/// the queue; where the queue and the disk disagree about where a folder is, the folder's key as seen on the disk decides.
///
/// Threads: owned and used by one thread.
class WatchedTree {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Attached { Standing, Missing, Refused };

  WatchedTree(std::uint32_t number, TreeOptions options, Coalescer& coalescer, StreamStatus& status);
  ~WatchedTree();
  WatchedTree(const WatchedTree&) = delete;
  WatchedTree& operator=(const WatchedTree&) = delete;

  /// Begins to watch what stands at the path now. With `report` other than 0 what is found is reported with these flags (ItemCreated).
  /// Refused: the kernel offers no queue; `error` tells errno.
  Attached attach(FSEventStreamEventFlags report, std::optional<std::uint64_t> since, int& error);
  /// Lets go of everything.
  void detach();
  [[nodiscard]] bool isAttached() const { return !sources_.empty(); }

  /// The kernel queue to wait for; -1 without one.
  [[nodiscard]] int descriptor() const { return sources_.empty() ? -1 : sources_.front()->descriptor(); }
  /// Empties the kernel queues into the backlog; cheap, and never touches the file system. True when there was anything.
  bool drain();
  /// Applies the backlog, repairs the tree after a loss and does what is due. Returns when to call again at the latest.
  std::optional<Clock::time_point> process();
  /// Applies everything that can be applied, without waiting for the second half of a move.
  void processAll();
  [[nodiscard]] bool hasBacklog() const;
  /// Rebuilds what only a new kernel queue can free, if there is anything. Call when the tree has been quiet for a while.
  void tidy();
  [[nodiscard]] bool needsTidying() const;

  /// Whether the watched folder may have become empty since the last call.
  bool takeRootLostItem() { return std::exchange(rootLostItem_, false); }

  bool takeMovedFolders() { return false; }
  void covered(std::string_view relative);
  void uncovered(std::string_view relative);
  void relocate(std::string reportedPath, std::string openPath);

  /// Reports the watched path itself.
  void reportRoot(FSEventStreamEventFlags flags);
  /// ItemIsDir or ItemIsFile of what is being watched.
  [[nodiscard]] FSEventStreamEventFlags rootKind() const {
    return rootIsFolder_ ? kFSEventStreamEventFlagItemIsDir : kFSEventStreamEventFlagItemIsFile;
  }
  [[nodiscard]] const TreeOptions& options() const { return options_; }

 private:
  /// The owner's flags of a node: which source marked it (plus one, 0 for none), and whether it could not be read.
  static constexpr std::uint8_t kSourceMask = 0x3;
  static constexpr std::uint8_t kUnreadable = 0x4;
  /// How often a folder that seems gone is looked for again, after the changes that may have moved it have been read.
  static constexpr int kAttemptsWhenGone = 3;

  struct OpenParent {
    OpenParent(FileHandle folder, int& count) : handle(std::move(folder)), count_(count) { ++count_; }
    ~OpenParent() { --count_; }
    OpenParent(const OpenParent&) = delete;
    OpenParent& operator=(const OpenParent&) = delete;
    FileHandle handle;

   private:
    int& count_;
  };
  /// A folder still to be entered, with its parent open where there are descriptors to spare.
  /// By name, since the tree may change before its turn comes.
  struct Pending {
    NodeId parent;
    std::string name;
    std::shared_ptr<OpenParent> open;
  };
  struct Displaced {
    NodeId node;
    std::string key;
    Clock::time_point until;
  };
  /// A place where a folder was said to be.
  struct Sighting {
    std::string target;
    std::string folder;
    std::string name;
    /// When the kernel has told all that the disk showed at the time of the sighting.
    Clock::time_point until;
  };
  /// A folder that could not be opened: for want of descriptors, or because a folder above it had moved on before the queue told so.
  struct Retry {
    std::string folder;
    std::string name;
    FSEventStreamEventFlags report;
    int attempts;
  };

  // WatchedTreeCrawl.cpp: marking and listing.
  /// `parent` is kNoNode for the watched folder itself.
  void crawl(NodeId parent, std::string_view name, FileHandle folder, FSEventStreamEventFlags report);
  void enter(NodeId parent, std::string_view name, FileHandle folder, FSEventStreamEventFlags report, std::vector<Pending>& stack);
  /// The node of the folder that was found at the place and has this key; kNoNode where it must not be entered.
  NodeId settle(NodeId parent, std::string_view name, std::string_view key);
  NodeId place(NodeId parent, std::string_view name);
  void list(NodeId node, FileHandle folder, FSEventStreamEventFlags report, std::vector<Pending>& stack);
  static bool isOwnPreferencesIn(int folder, std::string_view name);
  int markFolder(int folder, bool isFolder, KernelKey& key, std::uint8_t& sourceNumber);
  ChangeSource* source(std::size_t index);
  void openFailed(NodeId parent, std::string_view name, const std::shared_ptr<OpenParent>& open, int error);
  void markRefused(NodeId parent, std::string_view name, int error);
  bool isStillAt(NodeId node, std::string_view key);
  void repair(FSEventStreamEventFlags dropped);
  void retryLater(NodeId folder, std::string_view name, FSEventStreamEventFlags report, int attempts);
  void seemsGone(NodeId folder, std::string_view name, FSEventStreamEventFlags report, int attempts);
  /// The tree contradicts the disk, and no change to come explains it: it is walked again.
  void doubt();
  /// Whether the kernel queues and the backlog are empty at this moment. What contradicts the disk then was seen before the look, so that
  /// no change to come explains it.
  bool hasReadEverything();
  [[nodiscard]] bool hasUnapplied() const;
  void retryUnopened();
  void renewQueue();
  bool remark(ChangeSource& fresh);

  // WatchedTreeChanges.cpp: applying what the kernel tells.
  void apply(const RawChange& change);
  void applyRename(const RawChange& change, bool silent);
  void folderCreated(NodeId folder, std::string_view name, FSEventStreamEventFlags report);
  void folderRemoved(NodeId folder, std::string_view name, std::string_view target);
  void folderRenamed(NodeId from, std::string_view oldName, NodeId to, std::string_view newName, std::string_view target, bool silent);
  void takeUp(NodeId folder, std::string_view name, FSEventStreamEventFlags report, int attempts = kAttemptsWhenGone);

  // WatchedTreePlaces.cpp: settling where a folder is.
  void checkPlace(NodeId node, NodeId formerParent, std::string_view formerName, FSEventStreamEventFlags report);
  void sight(std::string_view target, NodeId folder, std::string_view name);
  void checkSightings();
  /// Leaves in the list what could not be settled yet.
  void settleSightings(std::vector<Sighting>& sightings);
  bool placeAt(const Sighting& sighting, NodeId node);
  void expectArrival(std::string_view key, NodeId folder, std::string_view name);
  bool arrive(NodeId node);
  void resolveArrivals();
  void moveNode(NodeId node, NodeId newParent, std::string_view newName);
  void displace(NodeId node);
  void expireDisplaced();

  enum class Why { Removed, Left };
  void forget(NodeId node, Why why);
  bool isGhost(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) const;
  bool isOwnPreferences(NodeId folder, std::string_view name) const;

  void report(NodeId folder, std::string_view name, FSEventStreamEventFlags flags, bool needsKind);
  [[nodiscard]] std::string relativePath(NodeId node) const;
  [[nodiscard]] bool isExcluded(NodeId folder, std::string_view name) const;
  FileHandle openFolder(NodeId folder, std::string_view name = {});
  int rootDescriptor();
  /// Lets go of every folder at the end of a batch, so that what was removed can go and what is mounted can be unmounted.
  void closeFolders();
  void countMarks();

  std::uint32_t number_;
  TreeOptions options_;
  Coalescer& coalescer_;
  StreamStatus& status_;

  bool rootIsFolder_ = true;
  /// The first is the preferred one; a second stands in for folders that the first cannot mark.
  std::vector<std::unique_ptr<ChangeSource>> sources_;
  /// A queue that a new one has replaced and that is still being emptied.
  std::unique_ptr<ChangeSource> retiring_;
  DirectoryTree tree_;
  std::int64_t marked_ = 0;
  std::int64_t markedReported_ = 0;
  std::uint16_t generation_ = 0;
  int openParents_ = 0;
  /// Open while a batch is worked on only, so that the file system can be unmounted.
  FileHandle root_;

  bool overflowed_ = false;
  bool backlogDropped_ = false;
  bool doubted_ = false;
  bool rootLostItem_ = false;
  /// Whether the last look found nothing in the kernel queues.
  bool queuesWereEmpty_ = true;
  /// When the last look at the kernel queues began.
  Clock::time_point drainedAt_{};
  std::vector<Displaced> displaced_;
  std::vector<Sighting> sightings_;
  /// Known folders that a listing found in another place, by their keys.
  std::map<std::string, Sighting, std::less<>> arrivals_;
  bool repairing_ = false;
  std::vector<Retry> unopened_;
  std::optional<Clock::time_point> retryAt_;

  // The path that was reported last, which the next change is usually about too.
  std::string pathBuffer_;
  NodeId cachedFolder_ = kNoNode;
  std::size_t cachedLength_ = 0;
  std::string lastName_;
  NodeId lastFolder_ = kNoNode;
  std::size_t lastNumber_ = 0;
  std::uint64_t lastEpoch_ = ~std::uint64_t{0};
  void pathsChanged() { cachedFolder_ = lastFolder_ = kNoNode; }
};

}  // namespace platform::fsevents
