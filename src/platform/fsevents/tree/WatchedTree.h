#pragma once

#include <algorithm>
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
#include "platform/fsevents/event/Coalescer.h"
#include "platform/fsevents/event/FSEventStreamTypes.h"
#include "platform/fsevents/folders/DirectoryTree.h"
#include "platform/fsevents/folders/Exclusions.h"
#include "platform/fsevents/folders/PastChanges.h"
#include "platform/fsevents/polling/PolledRegion.h"
#include "platform/fsevents/source/ChangeSource.h"
#include "platform/fsevents/source/KernelLimits.h"
#include "platform/fsevents/status/StreamStatus.h"
#include "platform/fsevents/tree/RenameTrail.h"
#include "platform/fsevents/tree/TreeOptions.h"
#include "platform/fsevents/tree/Unsettled.h"

namespace platform::fsevents {

/// One watched path with everything below it on the same mount: marks its folders, keeps their tree true to the changes that the kernel
/// tells, and turns those changes into pending events. It has one kernel queue of its own, so a storm or a loss in one watched path touches
/// no other; folders that the kernel refuses to mark are polled.
///
/// A folder is marked first and listed after, so nothing that happens in it in the meantime is missed. Changes are applied in the order of
/// the queue; where the queue and the disk disagree about where a folder is, the folder's key as seen on the disk decides.
///
/// What lies beyond a limit of marks hangs together: no folder below one that is only compared is marked, so the kernel's word is good for
/// whole paths, and below the compared ones the looks alone decide. A folder that crosses from one to the other is forgotten and found
/// anew.
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
  /// `since` (milliseconds since 1970) what has changed since then is. Standing also without a queue for a limit's sake: then everything is
  /// polled until there is one. Refused: the kernel offers no queue at all, `error` tells errno. Missing: nothing stands there, or (`error`
  /// tells) it cannot be opened.
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
  /// What came before has been handed over, when the kernel queue was last known empty at `time`: earlier where folders are compared.
  /// Milliseconds since 1970.
  [[nodiscard]] std::uint64_t seenUpTo(std::uint64_t time) const {
    const std::uint64_t seen = std::min(time, quietSince_.value_or(time));
    return region_ ? std::min(seen, region_->seenUpTo()) : seen;
  }
  /// Rebuilds what only a new kernel queue can free, if there is anything. Call when the tree has been quiet for a while.
  void tidy();
  [[nodiscard]] bool needsTidying() const;

  /// Whether the watched folder may have become empty since the last call.
  bool takeRootLostItem() { return std::exchange(rootLostItem_, false); }
  /// Whether a folder has moved since the last call, so that mount points may have other paths.
  bool takeMovedFolders() { return std::exchange(movedFolders_, false); }
  /// The places of folders ("/a/b") that could not be entered because something is mounted there, since the last call.
  [[nodiscard]] std::vector<std::string> takeCovered() { return std::exchange(covered_, {}); }
  /// Places ("/a/b") that a walk does not look into, since something is mounted there: that a look which refuses to cross a mount point
  /// leaves an automount alone is nowhere promised (openat2(2), RESOLVE_NO_XDEV). Without them nothing is crossed either.
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
  /// Parents kept open while their folders are entered; beyond that folders are opened by their path.
  static constexpr int kMaximumOpenParents = 128;
  /// The owner's flags of a node.
  static constexpr std::uint8_t kMarked = 0x1;
  /// It could not be read, which a loss tells.
  static constexpr std::uint8_t kTroubled = 0x4;
  static constexpr std::uint8_t kPolled = 0x8;
  /// It is polled because it could not be marked.
  static constexpr std::uint8_t kRefused = 0x10;

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
  using Where = FolderReference;
  /// A folder that could not be read, looked at again ever less often.
  struct Trouble {
    Where folder;
    std::string name;
    Clock::duration pause;
    Clock::time_point due;
    int tries = 0;
    int error = 0;
    /// Not told, since it may be over in a moment: then what is in the folder is told, and nothing is lost.
    bool isQuiet = false;
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
  [[nodiscard]] bool hasUnapplied() const;

  // WatchedTreeCrawl.cpp: marking and listing.
  /// `parent` is kNoNode for the watched folder itself.
  void crawl(NodeId parent, std::string_view name, FileHandle folder, std::uint64_t openedAt, FSEventStreamEventFlags report);
  void enter(NodeId parent, std::string_view name, FileHandle folder, std::uint64_t openedAt, FSEventStreamEventFlags report,
             std::vector<Pending>& stack);
  /// Reads the queue and says up to where.
  std::uint64_t readQueue();
  /// The folder, which was opened when the queue had been read up to there, has its mark.
  void marked(NodeId node, std::uint64_t openedAt);
  /// The folder was seen at its place ahead of the queue.
  void seenAhead(NodeId node, std::uint64_t openedAt);
  /// The node of the folder that was found at the place and has this key; kNoNode where it must not be entered.
  NodeId settle(NodeId parent, std::string_view name, std::string_view key);
  NodeId place(NodeId parent, std::string_view name);
  int list(NodeId node, FileHandle folder, FSEventStreamEventFlags report, std::vector<Pending>& stack);
  FSEventStreamEventFlags pastOf(int folder, const char* name, bool amongChanged) const;
  bool tellPastOf(NodeId node, int folder);
  static bool isOwnPreferencesIn(int folder, std::string_view name);

  // WatchedTreeRepair.cpp: made right again after a loss, and marks that only a new queue gets rid of.
  void repair(FSEventStreamEventFlags dropped);
  /// False when it could not begin and is to be tried again.
  bool walkAgain();
  std::optional<Clock::time_point> repairLater();
  std::optional<Clock::time_point> repairReplaced();
  /// The tree contradicts the disk, and no change to come explains it: it is walked again.
  void doubt();
  void renewQueue();
  int remark(ChangeSource& fresh);

  // WatchedTreeTrouble.cpp: folders that cannot be read.
  void openFailed(NodeId parent, std::string_view name, const std::shared_ptr<OpenParent>& open, int error);
  /// Learns the key of a folder that cannot be opened, so that what becomes of it is known.
  void identify(NodeId node, int parentFolder, std::string_view name);
  void refusedFolder(NodeId node, NodeId parent, int parentFolder, std::string_view name);
  void troubled(NodeId node, int error);
  /// By the folder's present place.
  Trouble& troubleOf(NodeId node);
  /// The folder has another place: what is troubled at and below it is looked for there.
  void troublesMoved(NodeId top);
  std::optional<Clock::time_point> retryTroubled();
  NodeId find(const Trouble& trouble) const;
  /// For a flush: what is quiet is tried at once, and told when the flush cannot wait any longer.
  void hastenQuiet();
  void tellQuiet();
  void tellBlind();
  void countQuiet();
  void lookAgain(NodeId node);
  void lookAgainAt(NodeId folder);
  void recovered(NodeId node) override;

  // WatchedTreePolling.cpp: folders that the kernel does not watch, or not for all who write to them.
  /// Whether the folder is compared because it could not be marked, so that the kernel tells nothing of what is below it.
  [[nodiscard]] bool isBeyondKernel(NodeId node) const { return (tree_.flags(node) & (kRefused | kMarked)) == kRefused; }
  /// Marks the folder, unless the one above it is only compared. Returns errno; the key is told all the same where it is known.
  int markBelow(NodeId parent, int folder, KernelKey& key);
  /// False and errno where it cannot be compared either.
  bool poll(NodeId node, int folder, int markError);
  void markLimitReached(int error);
  PolledRegion& region();
  void pollNoLonger(NodeId node);
  void tellRegion();
  void updatePolled(NodeId folder, std::string_view name, FSEventStreamEventFlags flags);
  void polledMoved(NodeId top, const std::string& formerPath);
  /// Tells everything that is known in the polled folders at and below `top` as removed.
  void tellPolledRemoved(NodeId top);
  std::optional<Clock::time_point> workOnRegion();
  PolledRegion::Mark tryMark(NodeId node, int folder) override;
  void left(NodeId node) override;
  void changed(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) override;
  void changedAt(std::string_view formerPlace, std::string_view name, FSEventStreamEventFlags flags) override;
  void folderGone(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) override;
  void folderFound(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) override;
  void replaced(NodeId node) override;
  bool knowsFolder(NodeId folder, std::string_view name) override;
  void failed(NodeId node, int error) override;
  /// `takeUp` below a folder that is only compared.
  void takeUpCompared(NodeId folder, std::string_view name, FSEventStreamEventFlags report);
  /// The compared folder was not where the tree has it while it was read: it is forgotten, and looked for again.
  void leftMeanwhile(NodeId node, FSEventStreamEventFlags report);
  /// Whether the change comes by a mark that was left on a folder from when it was elsewhere: where it is now the looks decide.
  [[nodiscard]] bool isLeftMark(NodeId folder, const RawChange& change) const;
  FileHandle openFolder(NodeId folder) override { return openFolder(folder, {}); }

  // WatchedTreeChanges.cpp: applying what the kernel tells.
  void apply(const RawChange& change);
  void applyRename(const RawChange& change, bool silent);
  void folderCreated(NodeId folder, std::string_view name, std::string_view target);
  void folderRemoved(NodeId folder, std::string_view name, std::string_view target);
  void folderRenamed(NodeId from, std::string_view oldName, NodeId to, std::string_view newName, std::string_view target, bool silent);
  void takeUp(NodeId folder, std::string_view name, FSEventStreamEventFlags report, std::string_view target = {});
  // WatchedTreeMerges.cpp: renames that the kernel has merged into earlier ones.
  void followMerged(const RawChange& rename);
  /// From where the folder of this key goes away next, by a rename or its removal, in what was read and not yet applied.
  [[nodiscard]] std::optional<RenameTrail::Place> nextDeparture(std::string_view target) const;
  void attributesChanged(NodeId node);

  /// The node of this key, unless the change that is being applied is older than its being known.
  [[nodiscard]] NodeId findOf(std::string_view key);
  [[nodiscard]] bool mayHaveMovedUnmarked(NodeId node);
  /// One of those that had this place until another took it.
  [[nodiscard]] NodeId displacedUnmarked(NodeId folder, std::string_view name);

  // WatchedTreePlaces.cpp: settling where a folder is.
  [[nodiscard]] Where whereIs(NodeId node) const;
  [[nodiscard]] NodeId find(const Where& where) const;
  [[nodiscard]] NodeId findByPath(std::string_view relative) const;
  /// Where a folder is that the tree has at a place; unknown while there are no descriptors to look.
  enum class Presence { There, Elsewhere, Unknown };
  Presence presenceOf(NodeId node);
  /// The same of one that cannot be opened, by its name in the folder around it.
  Presence presenceOfClosed(NodeId node);
  bool isStillAt(NodeId node) { return presenceOf(node) == Presence::There; }
  /// Whether the open folder is the one that the tree has as this node; where it has no key, whatever stands at its path is.
  [[nodiscard]] bool isNode(const FileHandle& opened, NodeId node);
  /// Whether the open folder is where the tree has the node at this moment.
  bool isAtItsPlace(NodeId node, int folder);
  /// What was seen at a place, before the queue was read to its end once more.
  struct Look {
    UnsettledPlace place;
    NodeId folder = kNoNode;
    /// The folder of the place is where the tree has it.
    bool isFolderThere = false;
    FileHandle opened;
    std::uint64_t openedAt = 0;
    int error = 0;
    KernelKey key;
    /// The target is where it is known.
    bool isTargetThere = false;
    /// Another is there or none, in the folder that the tree has it in.
    bool isTargetGone = false;
    /// There was a shortage: nothing was seen.
    bool isBlind = false;
  };
  void unsettle(NodeId folder, std::string_view name, std::string_view target, FSEventStreamEventFlags report = 0, bool isUntold = false);
  void resolveUnsettled();
  bool lookAt(Look& look);
  std::vector<Look> lookAtUnsettled();
  /// True when a folder was moved in the tree, so that what was seen elsewhere must be seen anew.
  bool resolve(Look& look);
  bool resolveFound(Look& look);
  void resolveMissing(Look& look);
  void moveNode(NodeId node, NodeId newParent, std::string_view newName);
  void displace(NodeId node);
  void exclusionsMoved(NodeId node, std::string_view formerPath);

  enum class Why { Removed, Left };
  void forget(NodeId node, Why why);
  bool isGhost(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) const;
  bool isOwnPreferences(NodeId folder, std::string_view name) const;

  // WatchedTreePaths.cpp: the paths of folders, opened and told.
  void report(NodeId folder, std::string_view name, FSEventStreamEventFlags flags, bool needsKind);
  void reportLoss(LossKind kind, NodeId node, const Explanation& why);
  [[nodiscard]] std::string relativePath(NodeId node) const;
  [[nodiscard]] std::string reportedPathOf(NodeId node) const;
  [[nodiscard]] bool isExcluded(NodeId folder, std::string_view name) const;
  /// Whether the folder at the place is not to be looked into. Takes note of what a mount hides.
  [[nodiscard]] bool isLeftOut(NodeId folder, std::string_view name);
  [[nodiscard]] bool isHidden(NodeId folder, std::string_view name);
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
  /// As the status has them.
  std::size_t foldersTold_ = 0;
  std::chrono::milliseconds intervalTold_{};
  /// While the past is being told.
  std::optional<PastChanges> past_;
  /// The coarse clock (milliseconds) at the last look that found the queue empty and everything applied.
  std::uint64_t emptyAt_ = 0;

  /// A repair whose walk could not begin: the loss lasts.
  struct Unwalked {
    LossKind kind;
    FSEventStreamEventFlags dropped;
    Clock::time_point due;
  };
  std::optional<Unwalked> unwalked_;
  /// When the root's mark has ended: what stands there then is another folder, unless others say before that nothing does.
  std::optional<Clock::time_point> replacedAt_;
  bool overflowed_ = false;
  bool backlogDropped_ = false;
  bool doubted_ = false;
  bool rootLostItem_ = false;
  bool movedFolders_ = false;
  std::vector<std::string> covered_;
  /// Folders that a mount hides, by the path that they had when that was found: in which folder, which may be elsewhere by the time at
  /// which they are uncovered, and under which name.
  std::map<std::string, std::pair<Where, std::string>, std::less<>> hidden_;
  Unsettled unsettled_;
  bool isBlind_ = false;
  /// Of folders that were found ahead of the queue: up to where it had been read before the folder was opened, and after it was marked.
  /// What lies before is about what was at its place earlier, or about the folder itself where it was earlier.
  struct Youth {
    std::uint64_t opened;
    std::uint64_t marked;
  };
  std::map<NodeId, Youth> young_;
  /// Of what was read together, and how often what follows in it was searched.
  RenameTrail trail_;
  int looksAhead_ = 0;
  /// Grows with every folder that came, went or moved, as the queue tells it.
  std::uint64_t structure_ = 0;
  bool repairing_ = false;
  /// By their places.
  std::map<std::string, Trouble> troubles_;
  /// While some are quiet: everything that happened before this (as `emptyAt_`) has been told.
  std::optional<std::uint64_t> quietSince_;
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
