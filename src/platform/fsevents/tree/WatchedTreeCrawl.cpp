#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "platform/foundation/preferences/PreferencesWrites.h"
#include "platform/fsevents/folders/FolderScan.h"
#include "platform/fsevents/folders/PathOpener.h"
#include "platform/fsevents/source/KernelLimits.h"
#include "platform/fsevents/tree/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// Parents kept open while their folders are entered; beyond that folders are opened by their path.
constexpr int kMaximumOpenParents = 128;
/// How often the kernel queue is emptied while a crawl is under way.
constexpr int kFoldersBetweenDrains = 64;
constexpr int kEntriesBetweenDrains = 8192;
/// So many names are held until it is certain that their folder was where the tree has it while it was read.
constexpr std::size_t kHeldNames = 1000;
/// Until a walk is tried again that could not begin.
constexpr std::chrono::milliseconds kWalkPause(200);
/// A new queue costs a walk: it is made so seldom that this costs a thousandth of one processor.
constexpr int kRenewalRatio = 1000;

/// Whether a mark was refused because this source cannot serve this file system.
bool isUnsuitable(int error) { return error == EXDEV || error == EOPNOTSUPP || error == ENODEV || error == ENOSYS || error == EINVAL; }

std::chrono::nanoseconds processorTime() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace

std::uint64_t WatchedTree::readQueue() {
  drain();
  return source_ ? source_->readUpTo() : 0;
}

void WatchedTree::crawl(NodeId parent, std::string_view name, FileHandle folder, std::uint64_t openedAt, FSEventStreamEventFlags report) {
  if (++generation_ == 0) ++generation_;
  std::vector<Pending> stack;
  enter(parent, name, std::move(folder), openedAt, report, stack);
  while (!stack.empty() && !isStopped() && !refusesSource_) {
    const Pending next = std::move(stack.back());
    stack.pop_back();
    const std::uint64_t before = readQueue();
    FileHandle opened =
        next.open ? openFolderIn(next.open->handle.fileDescriptor(), next.name.c_str()) : openFolder(next.parent, next.name);
    if (opened.isOpen()) {
      enter(next.parent, next.name, std::move(opened), before, next.report, stack);
    } else {
      openFailed(next.parent, next.name, next.open, errno);
    }
  }
}

void WatchedTree::enter(NodeId parent, std::string_view name, FileHandle folder, std::uint64_t openedAt, FSEventStreamEventFlags report,
                        std::vector<Pending>& stack) {
  ++options_.pulse->steps;
  const int descriptor = folder.fileDescriptor();
  KernelKey key;
  int error = source_ ? source_->mark(descriptor, true, key) : queueError_;
  const bool isMarked = source_ && error == 0;
  if (!isMarked && parent != kNoNode && (isGone(error) || isRefused(error))) {
    openFailed(parent, name, nullptr, error);
    return;
  }
  refusesSource_ = refusesSource_ || (source_ && isUnsuitable(error));
  if (refusesSource_) return;
  const bool wasKnown = tree_.findByKey(key.view()) != kNoNode;
  const NodeId node = settle(parent, name, key.view());
  if (node == kNoNode) return;
  if (isMarked) countMark(node);
  if (isMarked && !wasKnown) {
    if (const std::uint64_t after = readQueue(); source_->position() < after) young_[node] = {openedAt, after};
  }
  tree_.setGeneration(node, generation_);
  // What the polling compares with is read before the listing: what comes in between is in the listing, and found once more.
  const bool isPolled = !isMarked || options_.policy.isForeign();
  const bool isReadable = !isPolled || poll(node, descriptor, isMarked ? 0 : error);
  error = isReadable ? list(node, std::move(folder), report, stack) : errno;
  if (error == 0) {
    recovered(node);
  } else {
    troubled(node, error);
  }
}

void WatchedTree::countMark(NodeId node) {
  const std::uint8_t flags = tree_.flags(node);
  if ((flags & kMarked) == 0) ++marked_;
  tree_.setFlags(node, flags | kMarked);
}

NodeId WatchedTree::place(NodeId parent, std::string_view name) {
  if (parent == kNoNode) return DirectoryTree::kRoot;
  const NodeId node = tree_.child(parent, name);
  return node == kNoNode ? tree_.add(parent, name, {}) : node;
}

NodeId WatchedTree::settle(NodeId parent, std::string_view name, std::string_view key) {
  const NodeId known = tree_.findByKey(key);
  const NodeId there = parent == kNoNode ? DirectoryTree::kRoot : tree_.child(parent, name);
  if (known != kNoNode && known == there) return there;
  if (parent == kNoNode) {
    if (known == kNoNode) tree_.setKey(there, key);
    return known == kNoNode ? there : kNoNode;
  }
  if (known != kNoNode && !repairing_) {
    // It has its mark. Changes that were made in its old place may still be in the queue, and the one that brings it here.
    unsettle(parent, name, key, kFSEventStreamEventFlagItemRenamed);
    return kNoNode;
  }
  // A folder that is seen in two places at once is mounted twice, perhaps within itself; it keeps its first place.
  const bool above = known != kNoNode && tree_.isBelowOrSame(parent, known);
  if (above || (known != kNoNode && tree_.generation(known) == generation_ && !tree_.isDetached(known))) {
    if (above || isStillAt(known)) return kNoNode;
  }
  if (there != kNoNode) {
    // A folder whose key nobody can tell is not marked, and so none that is.
    if (known == kNoNode && (tree_.key(there).empty() || (tree_.flags(there) & kMarked) == 0)) {
      if (!key.empty()) tree_.setKey(there, key);
      return there;
    }
    displace(there);  // another folder stands where this one was
  }
  if (known == kNoNode) return tree_.add(parent, name, key);
  moveNode(known, parent, name);
  return known;
}

bool WatchedTree::isOwnPreferencesIn(int folder, std::string_view name) {
  struct stat info {};
  PreferencesWrites& writes = PreferencesWrites::shared();
  return writes.hasName(name) && ::fstat(folder, &info) == 0 && writes.isOwnWrite(info.st_dev, info.st_ino, name);
}

FSEventStreamEventFlags WatchedTree::pastOf(int folder, const char* name, bool amongChanged) const {
  struct statx info {};
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (name[0] == '\0' ? AT_EMPTY_PATH : 0);
  if (::statx(folder, name, flags, PastChanges::kMask, &info) == 0) return past_->of(info, amongChanged);
  // Gone since it was listed, or nobody can tell: then it is told.
  return isGone(errno) ? 0 : kFSEventStreamEventFlagItemModified;
}

bool WatchedTree::tellPastOf(NodeId node, int folder) {
  struct statx info {};
  const bool changed = ::statx(folder, "", AT_EMPTY_PATH, PastChanges::kMask, &info) != 0 || past_->entriesChanged(info);
  if (changed) report(node, {}, kFSEventStreamEventFlagItemModified | kFSEventStreamEventFlagItemIsDir, false);
  return changed;
}

int WatchedTree::list(NodeId node, FileHandle folder, FSEventStreamEventFlags flags, std::vector<Pending>& stack) {
  const int descriptor = folder.fileDescriptor();
  std::shared_ptr<OpenParent> parent;
  const bool tellsPast = flags == 0 && past_;
  const bool isChanged = tellsPast && tellPastOf(node, descriptor);
  const bool foldersOnly = flags == 0 && !tellsPast;
  const bool isPolled = region_ && (tree_.flags(node) & kPolled) != 0;
  int listed = 0;
  std::vector<std::pair<std::string, FSEventStreamEventFlags>> held;
  bool isInPlace = true;
  const auto tellHeld = [&] {
    // A folder that moves while it is read is read again when it has been told where it is: its names belong to no other place.
    isInPlace = isInPlace && isAtItsPlace(node, descriptor);
    if (isInPlace) {
      for (const auto& [name, found] : held) report(node, name, found, false);
    }
    held.clear();
  };
  const int error = scanFolder(descriptor, foldersOnly, [&](const char* name, FSEventStreamEventFlags kind) {
    FSEventStreamEventFlags inherited = flags;
    if (isPolled) region_->listed(node, name, kind);
    if (flags != 0 && !(options_.ignoreSelf && isOwnPreferencesIn(descriptor, name))) held.emplace_back(name, flags | kind);
    if (held.size() >= kHeldNames) tellHeld();
    if (tellsPast) {
      if (const FSEventStreamEventFlags past = pastOf(descriptor, name, isChanged); past != 0) {
        report(node, name, past, false);
        // A folder that came from elsewhere has brought everything in it along.
        inherited = past & (kFSEventStreamEventFlagItemCreated | kFSEventStreamEventFlagItemRenamed);
      }
    }
    // A long listing must not keep the kernel queue waiting.
    if (++listed % kEntriesBetweenDrains == 0) drain();
    if (kind != kFSEventStreamEventFlagItemIsDir || isLeftOut(node, name)) return;
    // Moved once, since `parent` is there from then on; the descriptor stays open with it.
    if (!parent && openParents_ < kMaximumOpenParents) parent = std::make_shared<OpenParent>(std::move(folder), openParents_);
    stack.push_back({node, name, parent, inherited});
  });
  if (!held.empty()) tellHeld();
  if (!isInPlace && node != DirectoryTree::kRoot) unsettle(tree_.parent(node), tree_.name(node), tree_.key(node), flags, true);
  return error;
}

void WatchedTree::doubt() {
  // Where the watched folder itself has gone, that is another's to notice.
  doubted_ = doubted_ || isStillAt(DirectoryTree::kRoot);
}

void WatchedTree::repair(FSEventStreamEventFlags dropped) {
  if (dropped == kFSEventStreamEventFlagKernelDropped) overflowed_ = false;
  if (dropped == kFSEventStreamEventFlagUserDropped) backlogDropped_ = false;
  if (dropped == 0) doubted_ = false;
  const LossKind kind = dropped == kFSEventStreamEventFlagKernelDropped ? LossKind::QueueOverflow
                        : dropped == kFSEventStreamEventFlagUserDropped ? LossKind::OwnBound
                                                                        : LossKind::Unexplained;
  const Explanation why = kind == LossKind::QueueOverflow ? explainOverflow(sourceName())
                          : kind == LossKind::OwnBound
                              ? Explanation{"more changes came than could be remembered; the tree is walked again", ""}
                              : Explanation{"the changes told do not explain what is on the disk; the tree is walked again", ""};
  static_cast<void>(status_.losses().begin(kind, reportedPathOf(DirectoryTree::kRoot), why.reason, why.remedy));
  reportRoot(kFSEventStreamEventFlagMustScanSubDirs | dropped | rootKind());
  if (!walkAgain()) {
    unwalked_ = Unwalked{kind, dropped, Clock::now() + kWalkPause};
  } else if (!isStopped()) {
    status_.losses().end(kind, reportedPathOf(DirectoryTree::kRoot));
  }
}

std::optional<WatchedTree::Clock::time_point> WatchedTree::repairLater() {
  if (!unwalked_) return std::nullopt;
  if (unwalked_->due > Clock::now()) return unwalked_->due;
  if (!walkAgain()) {
    unwalked_->due = Clock::now() + kWalkPause;
    return unwalked_->due;
  }
  // What happened until now was told by nobody.
  const Unwalked done = *std::exchange(unwalked_, std::nullopt);
  reportRoot(kFSEventStreamEventFlagMustScanSubDirs | done.dropped | rootKind());
  status_.losses().end(done.kind, reportedPathOf(DirectoryTree::kRoot));
  return std::nullopt;
}

bool WatchedTree::walkAgain() {
  if (!rootIsFolder_) return true;
  rootLostItem_ = true;
  FileHandle opened = openFolder(DirectoryTree::kRoot);
  // Where the root is gone, that is another's to notice.
  if (!opened.isOpen()) return isGone(errno) || isCovered(errno);
  // So that no folder seems to have been seen by a crawl whose number has come round again.
  tree_.forEach([&](NodeId node) { tree_.setGeneration(node, 0); });
  generation_ = 0;
  unsettled_.clear();
  repairing_ = true;
  crawl(kNoNode, {}, std::move(opened), 0, 0);
  repairing_ = false;
  if (isStopped() || refusesSource_) return true;
  std::vector<NodeId> stale;
  tree_.forEach([&](NodeId node) {
    if (node == DirectoryTree::kRoot || tree_.generation(node) == generation_) return;
    const NodeId parent = tree_.parent(node);
    // What is in a folder that cannot be read now has not been looked for.
    if ((tree_.flags(parent) & kTroubled) != 0) return;
    if (parent == DirectoryTree::kRoot || tree_.generation(parent) == generation_ || tree_.isDetached(node)) stale.push_back(node);
  });
  // What is gone may have been removed or have left: only a new queue makes sure that no mark stays behind.
  for (const NodeId node : stale) {
    if (tree_.generation(node) != generation_ && tree_.parent(node) != kNoNode) forget(node, Why::Left);
  }
  return true;
}

bool WatchedTree::needsTidying() const { return source_ && !retiring_ && source_->orphans() > 0; }

void WatchedTree::tidy() {
  // A folder that has no place at the moment would be passed over.
  const bool isAtRest = unsettled_.empty() && !hasUnapplied();
  if (!isAtRest || !needsTidying() || Clock::now() < renewNotBefore_) return;
  const auto before = processorTime();
  renewQueue();
  renewNotBefore_ = Clock::now() + (processorTime() - before) * kRenewalRatio;
}

void WatchedTree::renewQueue() {
  std::unique_ptr<ChangeSource> fresh = source_->renewed();
  if (!fresh) return;
  const int refused = remark(*fresh);
  if (isLimitReached(refused)) {
    // There is no room for both queues: the marks of the old one are freed first, and what happens meanwhile is found by its time.
    fresh.reset();
    if (!drain() && !hasUnapplied()) resume(emptyAt_);
    return;
  }
  if (refused != 0) return;
  // Every folder is marked in both queues now. The old one is emptied once more; what both tell is told twice at worst.
  retiring_ = std::exchange(source_, std::move(fresh));
  drain();
  process();
  retiring_.reset();
}

int WatchedTree::remark(ChangeSource& fresh) {
  struct Folder {
    NodeId node;
    std::shared_ptr<OpenParent> open;
  };
  std::vector<Folder> stack{{DirectoryTree::kRoot, nullptr}};
  int refused = 0;
  for (int entered = 1; !stack.empty() && refused == 0; ++entered) {
    const Folder next = std::move(stack.back());
    stack.pop_back();
    FileHandle opened =
        next.open ? openFolderIn(next.open->handle.fileDescriptor(), std::string(tree_.name(next.node)).c_str()) : openFolder(next.node);
    if ((tree_.flags(next.node) & kMarked) != 0) {
      KernelKey key;
      refused = opened.isOpen() ? fresh.mark(opened.fileDescriptor(), true, key) : ENOENT;
      // A folder that is not in its place is about to be told of: not the time for this.
      if (refused == 0 && key.view() != tree_.key(next.node)) refused = ENOENT;
    }
    std::shared_ptr<OpenParent> open;
    if (opened.isOpen() && openParents_ < kMaximumOpenParents) open = std::make_shared<OpenParent>(std::move(opened), openParents_);
    tree_.forEachChild(next.node, [&](NodeId child) { stack.push_back({child, open}); });
    if (entered % kFoldersBetweenDrains == 0) drain();
    if (isStopped()) refused = EINTR;
  }
  closeFolders();
  return refused;
}

}  // namespace platform::fsevents
