#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/fsevents/ChangeSource.h"
#include "platform/fsevents/Coalescer.h"
#include "platform/fsevents/DirectoryTree.h"
#include "platform/fsevents/Exclusions.h"
#include "platform/fsevents/FSEventStream.h"
#include "platform/fsevents/KernelLimits.h"
#include "platform/fsevents/PastChanges.h"
#include "platform/fsevents/PolledRegion.h"
#include "platform/fsevents/StreamStatus.h"
#include "platform/fsevents/TreeOptions.h"

namespace platform::fsevents {

/// One watched path with everything below it on the same mount: marks its folders, keeps their tree true to the changes that the kernel
/// tells, and turns those changes into pending events. It has one kernel queue of its own, so a storm or a loss in one watched path touches
/// no other; folders that the kernel refuses to mark are polled.
///
/// A folder is marked first and listed after, so nothing that happens in it in the meantime is missed. Changes are applied in the order of
/// the queue; where the queue and the disk disagree about where a folder is, the folder's key as seen on the disk decides.
///
/// No mount point is crossed: what is mounted below is another tree's, and what a mount hides is nobody's until it is uncovered.
///
/// Threads: owned and used by one thread; only the pulse in its options is others'.
class WatchedTree final : private PolledRegion::Host {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Attached { Standing, Missing, Refused };

  WatchedTree(std::uint32_t number, TreeOptions options, Coalescer& coalescer, StreamStatus& status);
  ~WatchedTree() override;
  WatchedTree(const WatchedTree&) = delete;
  WatchedTree& operator=(const WatchedTree&) = delete;

  /// Begins to watch what stands at the path now. With `report` other than 0 what is found is reported with these flags (ItemCreated); with
  /// `since` (milliseconds since 1970) what has changed since then is. Refused: the kernel offers no queue, `error` tells errno, and
  /// everything is polled until it does. Missing: nothing stands there, or (`error` tells) it cannot be opened.
  Attached attach(FSEventStreamEventFlags report, std::optional<std::uint64_t> since, int& error);
  /// Lets go of everything.
  void detach();
  [[nodiscard]] bool isAttached() const { return attached_; }

  /// The kernel queue to wait for; -1 without one.
  [[nodiscard]] int descriptor() const { return source_ ? source_->descriptor() : -1; }
  /// Empties the kernel queue into the backlog; cheap, and never touches the file system. True when there was anything.
  bool drain();
  /// Applies the backlog, repairs the tree after a loss and does what is due. Returns when to call again at the latest.
  std::optional<Clock::time_point> process();
  /// Applies everything that can be applied, without waiting for the second half of a move, and looks at everything that is polled.
  void processAll();
  [[nodiscard]] bool hasBacklog() const;
  /// Rebuilds what only a new kernel queue can free, if there is anything. Call when the tree has been quiet for a while.
  void tidy();
  [[nodiscard]] bool needsTidying() const;

  /// Whether the watched folder may have become empty since the last call.
  bool takeRootLostItem() { return std::exchange(rootLostItem_, false); }
  /// Whether a folder has moved since the last call, so that mount points may have other paths.
  bool takeMovedFolders() { return std::exchange(movedFolders_, false); }
  /// Places ("/a/b") that a walk does not look into, since something is mounted there: before Linux 6.18 even the look that refuses to
  /// cross a mount point has an automount mount what it stands for (openat2(2), RESOLVE_NO_XDEV). Without them nothing is crossed either.
  void avoid(std::set<std::string, std::less<>> mountPoints) { mountPoints_ = std::move(mountPoints); }
  /// Something was mounted on the folder at `relative` ("/a/b"): what it hides is forgotten.
  void covered(std::string_view relative);
  /// The mount on the folder at `relative` is gone: the folder underneath is watched.
  void uncovered(std::string_view relative);

  /// Reports the watched path itself.
  void reportRoot(FSEventStreamEventFlags flags);
  /// ItemIsDir or ItemIsFile of what is being watched.
  [[nodiscard]] FSEventStreamEventFlags rootKind() const {
    return rootIsFolder_ ? kFSEventStreamEventFlagItemIsDir : kFSEventStreamEventFlagItemIsFile;
  }
  [[nodiscard]] const TreeOptions& options() const { return options_; }
  /// The tree's paths have become others (a folder above its mount point was renamed).
  void relocate(std::string reportedPath, std::string openPath);

 private:
  /// The owner's flags of a node.
  static constexpr std::uint8_t kMarked = 0x1;
  /// It could not be read, which a loss tells.
  static constexpr std::uint8_t kTroubled = 0x4;
  static constexpr std::uint8_t kPolled = 0x8;
  /// It is polled because it could not be marked.
  static constexpr std::uint8_t kRefused = 0x10;
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
    FSEventStreamEventFlags report;
  };
  /// By what a folder is found again later: its key, or its path where it has none.
  struct Where {
    std::string key;
    std::string path;
  };
  struct Displaced {
    NodeId node;
    std::string key;
    Clock::time_point until;
  };
  /// A place where a folder was said to be.
  struct Sighting {
    std::string target;
    Where folder;
    std::string name;
    /// When the kernel has told all that the disk showed at the time of the sighting.
    Clock::time_point until;
  };
  /// A folder that could not be opened: a folder above it had moved on before the queue told so.
  struct Retry {
    Where folder;
    std::string name;
    FSEventStreamEventFlags report;
    int attempts;
  };
  /// A folder that could not be read, looked at again ever less often.
  struct Trouble {
    Where folder;
    std::string name;
    Clock::duration pause;
    Clock::time_point due;
    int tries;
  };

  // WatchedTree.cpp: what it is attached to.
  Attached attachFrom(FSEventStreamEventFlags report, int& error);
  std::unique_ptr<ChangeSource> makeSource(int& error);
  void begin(FileHandle folder, FSEventStreamEventFlags report);
  void letGo();
  void tellSource();
  void markFile(int file);
  /// The next source for a file system that refuses the one in use.
  void nextKernel();
  /// Begins anew without a gap: what has changed since then is told.
  void resume(std::uint64_t since);
  void askForQueue();
  [[nodiscard]] const char* sourceName() const;

  // WatchedTreeCrawl.cpp: marking and listing.
  /// `parent` is kNoNode for the watched folder itself.
  void crawl(NodeId parent, std::string_view name, FileHandle folder, FSEventStreamEventFlags report);
  void enter(NodeId parent, std::string_view name, FileHandle folder, FSEventStreamEventFlags report, std::vector<Pending>& stack);
  void countMark(NodeId node);
  /// The node of the folder that was found at the place and has this key; kNoNode where it must not be entered.
  NodeId settle(NodeId parent, std::string_view name, std::string_view key);
  NodeId place(NodeId parent, std::string_view name);
  int list(NodeId node, FileHandle folder, FSEventStreamEventFlags report, std::vector<Pending>& stack);
  FSEventStreamEventFlags pastOf(int folder, const char* name, bool amongChanged) const;
  bool tellPastOf(NodeId node, int folder);
  static bool isOwnPreferencesIn(int folder, std::string_view name);
  bool isStillAt(NodeId node, std::string_view key);
  void repair(FSEventStreamEventFlags dropped);
  void walkAgain();
  void retryLater(NodeId folder, std::string_view name, FSEventStreamEventFlags report, int attempts);
  void seemsGone(NodeId folder, std::string_view name, FSEventStreamEventFlags report, int attempts);
  /// The tree contradicts the disk, and no change to come explains it: it is walked again.
  void doubt();
  /// Whether the kernel queue and the backlog are empty at this moment. What contradicts the disk then was seen before the look, so that no
  /// change to come explains it.
  bool hasReadEverything();
  [[nodiscard]] bool hasUnapplied() const;
  void retryUnopened();
  void renewQueue();
  int remark(ChangeSource& fresh);

  // WatchedTreeTrouble.cpp: folders that cannot be read or marked.
  void openFailed(NodeId parent, std::string_view name, const std::shared_ptr<OpenParent>& open, int error);
  void refusedFolder(NodeId node, NodeId parent, int parentFolder, std::string_view name);
  void troubled(NodeId node, int error);
  std::optional<Clock::time_point> retryTroubled();
  void lookAgain(NodeId node);
  void lookAgainAt(NodeId folder);
  bool poll(NodeId node, int folder, int markError);
  void markLimitReached(int error);
  PolledRegion& region();
  void pollNoLonger(NodeId node);
  void tellRegion();
  void updatePolled(NodeId folder, std::string_view name, FSEventStreamEventFlags flags);
  void polledMoved(NodeId top, const std::string& formerPath);
  std::optional<Clock::time_point> workOnRegion();
  FileHandle openFolder(NodeId folder) override { return openFolder(folder, {}); }
  bool tryMark(NodeId node, int folder) override;
  void left(NodeId node) override;
  void changed(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) override;
  void changedAt(std::string_view formerPlace, std::string_view name, FSEventStreamEventFlags flags) override;
  void folderGone(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) override;
  void folderFound(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) override;
  void failed(NodeId node, int error) override;
  void recovered(NodeId node) override;

  // WatchedTreeChanges.cpp: applying what the kernel tells.
  void apply(const RawChange& change);
  void applyRename(const RawChange& change, bool silent);
  void folderCreated(NodeId folder, std::string_view name, FSEventStreamEventFlags report);
  void folderRemoved(NodeId folder, std::string_view name, std::string_view target);
  void folderRenamed(NodeId from, std::string_view oldName, NodeId to, std::string_view newName, std::string_view target, bool silent);
  void takeUp(NodeId folder, std::string_view name, FSEventStreamEventFlags report, int attempts = kAttemptsWhenGone);
  void attributesChanged(NodeId node);

  // WatchedTreePlaces.cpp: settling where a folder is.
  [[nodiscard]] Where whereIs(NodeId node) const;
  [[nodiscard]] NodeId find(const Where& where) const;
  [[nodiscard]] NodeId findByPath(std::string_view relative) const;
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
  void exclusionsMoved(NodeId node, std::string_view formerPath);
  void takeUpUncovered();

  enum class Why { Removed, Left };
  void forget(NodeId node, Why why);
  bool isGhost(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) const;
  bool isOwnPreferences(NodeId folder, std::string_view name) const;

  void report(NodeId folder, std::string_view name, FSEventStreamEventFlags flags, bool needsKind);
  void reportLoss(LossKind kind, NodeId node, const Explanation& why);
  [[nodiscard]] std::string relativePath(NodeId node) const;
  [[nodiscard]] std::string reportedPathOf(NodeId node) const;
  [[nodiscard]] bool isExcluded(NodeId folder, std::string_view name) const;
  /// Whether the folder at the place is not to be looked into.
  [[nodiscard]] bool isLeftOut(NodeId folder, std::string_view name) const;
  FileHandle openFolder(NodeId folder, std::string_view name);
  int rootDescriptor();
  /// Lets go of every folder at the end of a batch, so that what was removed can go and what is mounted can be unmounted.
  void closeFolders();
  void countMarks();
  [[nodiscard]] bool isStopped() const { return options_.pulse->stop.load(std::memory_order_relaxed); }

  std::uint32_t number_;
  TreeOptions options_;
  Exclusions exclusions_;
  std::set<std::string, std::less<>> mountPoints_;
  Coalescer& coalescer_;
  StreamStatus& status_;

  bool attached_ = false;
  bool rootIsFolder_ = true;
  /// None where the kernel offers no queue or none that this file system can be watched by: then everything is polled.
  std::unique_ptr<ChangeSource> source_;
  /// A queue that a new one has replaced and that is still being emptied.
  std::unique_ptr<ChangeSource> retiring_;
  /// The file system refused the source in use: the next one is to be tried.
  bool refusesSource_ = false;
  enum class Kernel : std::uint8_t { Preferred, Second, None };
  Kernel kernel_ = Kernel::Preferred;
  int queueError_ = 0;
  std::optional<Clock::time_point> askForQueueAt_;
  Clock::duration queuePause_{};

  DirectoryTree tree_;
  std::int64_t marked_ = 0;
  std::int64_t markedReported_ = 0;
  std::uint16_t generation_ = 0;
  int openParents_ = 0;
  /// Open while a batch is worked on only, so that the file system can be unmounted.
  FileHandle root_;

  std::unique_ptr<PolledRegion> region_;
  std::size_t refusedFolders_ = 0;
  bool limitTold_ = false;
  bool regionTold_ = false;
  /// While the past is being told.
  std::optional<PastChanges> past_;
  /// The coarse clock (milliseconds) at the last look that found the queue empty and everything applied.
  std::uint64_t emptyAt_ = 0;

  bool overflowed_ = false;
  bool backlogDropped_ = false;
  bool doubted_ = false;
  bool rootLostItem_ = false;
  bool movedFolders_ = false;
  /// Whether the last look found nothing in the kernel queue.
  bool queuesWereEmpty_ = true;
  /// When the last look at the kernel queue began.
  Clock::time_point drainedAt_{};
  std::vector<Displaced> displaced_;
  std::vector<Sighting> sightings_;
  /// Known folders that a listing found in another place, by their keys.
  std::map<std::string, Sighting, std::less<>> arrivals_;
  bool repairing_ = false;
  std::vector<Retry> unopened_;
  std::optional<Clock::time_point> retryAt_;
  /// By their places.
  std::map<std::string, Trouble> troubles_;
  /// Places that are no longer excluded, since the folder around them has another name.
  std::vector<Retry> unexcluded_;
  Clock::time_point renewNotBefore_{};

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
