#include <cerrno>
#include <utility>

#include "platform/foundation/base/ProcessorTime.h"
#include "platform/fsevents/folders/PathOpener.h"
#include "platform/fsevents/source/KernelLimits.h"
#include "platform/fsevents/tree/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// Until a walk is tried again that could not begin.
constexpr std::chrono::milliseconds kWalkPause(200);
/// A new queue costs a walk: it is made so seldom that this costs a thousandth of one processor.
constexpr int kRenewalRatio = 1000;
/// How often the queue is read while folders are marked anew.
constexpr int kFoldersBetweenDrains = 64;

}  // namespace

// The tree made right again after a loss, and marks that only a new queue gets rid of.

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

std::optional<WatchedTree::Clock::time_point> WatchedTree::repairReplaced() {
  if (!replacedAt_ || *replacedAt_ > Clock::now()) return replacedAt_;
  replacedAt_.reset();
  if (rootIsFolder_) repair(0);
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
  const auto before = threadProcessorTime();
  renewQueue();
  renewNotBefore_ = Clock::now() + (threadProcessorTime() - before) * kRenewalRatio;
}

void WatchedTree::renewQueue() {
  std::unique_ptr<ChangeSource> fresh = source_->renewed();
  if (!fresh) return;
  const int refused = remark(*fresh);
  if (isLimitReached(refused)) {
    // There is no room for both queues: the marks of the old one are freed first, and what happens meanwhile is found by its time.
    fresh.reset();
    if (!drain() && !hasUnapplied()) resume(seenUpTo(emptyAt_));
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
