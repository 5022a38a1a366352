#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/fsevents/event/ShownPath.h"
#include "platform/fsevents/folders/PathOpener.h"
#include "platform/fsevents/tree/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// How long the polling may keep the kernel queue waiting.
constexpr std::chrono::milliseconds kPollSlice(20);

}  // namespace

// Folders that the kernel does not watch, or not for all who write to them: which these are, and what their looks show.

int WatchedTree::markBelow(NodeId parent, int folder, KernelKey& key) {
  if (!source_) return queueError_;
  if (parent == kNoNode || !isBeyondKernel(parent)) return source_->mark(folder, true, key);
  if (source_->keyOf(folder, key) != 0) key.clear();
  return ENOSPC;
}

bool WatchedTree::poll(NodeId node, int folder, int markError) {
  const bool isRefusedMark = markError != 0;
  if (isRefusedMark && source_) markLimitReached(markError);
  // One that is in it goes on being compared with what was seen last.
  if (region().contains(node)) return true;
  const auto why = isRefusedMark ? PolledRegion::Why::MarkRefused : PolledRegion::Why::OthersWrite;
  if (!region().add(node, folder, why)) return false;
  std::uint8_t flags = tree_.flags(node);
  if (isRefusedMark && (flags & kRefused) == 0) ++refusedFolders_;
  flags |= kPolled;
  tree_.setFlags(node, isRefusedMark ? flags | kRefused : flags);
  return true;
}

PolledRegion::Mark WatchedTree::tryMark(NodeId node, int folder) {
  using Mark = PolledRegion::Mark;
  if (!source_) return Mark::Refused;
  if (node != DirectoryTree::kRoot && isBeyondKernel(tree_.parent(node))) return Mark::NotYet;
  KernelKey key;
  const std::uint64_t before = readQueue();
  if (const int error = source_->mark(folder, true, key); error != 0) {
    markLimitReached(error);
    return Mark::Refused;
  }
  NodeId known = tree_.findByKey(key.view());
  if (known != kNoNode && known != node) {
    // Known in another place: the queue is about to tell which, or a look.
    if (!isBeyondKernel(known) || tree_.isBelowOrSame(node, known)) return Mark::NotYet;
    forget(known, Why::Left);
    known = kNoNode;
  }
  if (known == kNoNode) tree_.setKey(node, key.view());
  marked(node, before);
  return Mark::Stands;
}

void WatchedTree::markLimitReached(int error) {
  if (std::exchange(limitTold_, true)) return;
  reportLoss(LossKind::MarkLimit, DirectoryTree::kRoot, explainMarkFailure(source_->name(), error));
}

void WatchedTree::left(NodeId node) {
  const std::uint8_t flags = tree_.flags(node);
  if ((flags & kRefused) != 0) --refusedFolders_;
  tree_.setFlags(node, flags & static_cast<std::uint8_t>(~(kRefused | kPolled)));
}

void WatchedTree::pollNoLonger(NodeId node) {
  const std::uint8_t flags = tree_.flags(node);
  if ((flags & kPolled) == 0 || !region_) return;
  region_->remove(node);
  left(node);
}

void WatchedTree::takeUpCompared(NodeId folder, std::string_view name, FSEventStreamEventFlags report) {
  const std::uint64_t before = readQueue();
  FileHandle opened = openFolder(folder, name);
  if (!opened.isOpen()) {
    // Of what is gone by now the next look finds out.
    if (!isGone(errno)) openFailed(folder, name, nullptr, errno);
    return;
  }
  KernelKey key;
  if (!source_ || source_->keyOf(opened.fileDescriptor(), key) != 0) key.clear();
  const NodeId there = tree_.child(folder, name);
  const bool isKnown = there != kNoNode && !key.empty() && tree_.key(there) == key.view();
  if (!isKnown || (tree_.flags(there) & kTroubled) != 0) crawl(folder, name, std::move(opened), before, report);
}

void WatchedTree::leftMeanwhile(NodeId node, FSEventStreamEventFlags report) {
  // Below a marked folder the queue explains it; below a compared one the next look at that does.
  const NodeId parent = tree_.parent(node);
  const std::string name(tree_.name(node));
  forget(node, Why::Left);
  // Also where nothing was to be told: what happens in it until it is found is seen by nobody.
  unsettle(parent, name, {}, report != 0 ? report : kFSEventStreamEventFlagItemCreated);
}

bool WatchedTree::isLeftMark(NodeId folder, const RawChange& change) const {
  if (!isBeyondKernel(folder)) return false;
  // Of the folder itself the one above it is told, if that is marked.
  const bool isOfItself = change.name.empty() && (change.bits & RawChange::kForgotten) == 0;
  return !isOfItself || folder == DirectoryTree::kRoot || isBeyondKernel(tree_.parent(folder));
}

PolledRegion& WatchedTree::region() {
  if (!region_) region_ = std::make_unique<PolledRegion>(options_.policy.timeStep, options_.policy.isForeign());
  return *region_;
}

std::optional<WatchedTree::Clock::time_point> WatchedTree::workOnRegion() {
  if (!region_) return std::nullopt;
  const auto next = region_->work(*this, kPollSlice);
  if (limitTold_ && refusedFolders_ == 0) {
    limitTold_ = false;
    status_.losses().end(LossKind::MarkLimit, reportedPathOf(DirectoryTree::kRoot));
  }
  const bool isOver = region_->empty();
  if (isOver) region_.reset();
  if (isOver || foldersTold_ != region_->folders() || intervalTold_ != region_->interval()) tellRegion();
  return isOver ? std::nullopt : next;
}

void WatchedTree::tellRegion() {
  foldersTold_ = region_ ? region_->folders() : 0;
  if (foldersTold_ == 0) {
    status_.removeRegion(options_.reportedPath);
    return;
  }
  const char* reason = options_.policy.isForeign() ? "others may write to this file system unseen"
                       : source_                   ? "the kernel marks no further folder"
                       : kernel_ == Kernel::None   ? "this file system cannot be watched"
                                                   : "the kernel offers no queue";
  intervalTold_ = region_->interval();
  status_.setRegion(options_.reportedPath, foldersTold_, intervalTold_, reason);
}

void WatchedTree::updatePolled(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) {
  if (!region_ || folder == kNoNode || name.empty() || (tree_.flags(folder) & kPolled) == 0) return;
  if (const FileHandle opened = openFolder(folder); opened.isOpen()) region_->told(folder, opened.fileDescriptor(), name, flags);
}

void WatchedTree::polledMoved(NodeId top, const std::string& formerPath) {
  const std::size_t length = relativePath(top).size();
  tree_.forEachBelow(top, [&](NodeId node) {
    if ((tree_.flags(node) & kPolled) != 0) region_->moved(node, formerPath + relativePath(node).substr(length));
  });
}

void WatchedTree::tellPolledRemoved(NodeId top) {
  if (!region_) return;
  tree_.forEachBelow(top, [&](NodeId node) {
    if ((tree_.flags(node) & kPolled) != 0) region_->tellAllRemoved(node, *this);
  });
}

void WatchedTree::changed(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) {
  constexpr FSEventStreamEventFlags kAttributes = kFSEventStreamEventFlagItemInodeMetaMod | kFSEventStreamEventFlagItemIsDir;
  report(folder, name, flags, false);
  if ((flags & kAttributes) == kAttributes && !name.empty()) attributesChanged(tree_.child(folder, name));
}

void WatchedTree::changedAt(std::string_view formerPlace, std::string_view name, FSEventStreamEventFlags flags) {
  std::string path = options_.reportedPath;
  path.append(formerPlace);
  if (options_.fileEvents) path.append("/").append(name);
  coalescer_.add(number_, shownPath(path), options_.fileEvents ? flags : 0, false);
}

void WatchedTree::folderGone(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) {
  const NodeId node = tree_.child(folder, name);
  if (node == kNoNode) return;
  // Before another is found in its place.
  const bool isRenamed = (flags & kFSEventStreamEventFlagItemRenamed) != 0;
  if (!isRenamed) tellPolledRemoved(node);
  if (isBeyondKernel(folder)) {
    forget(node, isRenamed ? Why::Left : Why::Removed);
  } else {
    displace(node);
  }
}

void WatchedTree::folderFound(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) {
  constexpr FSEventStreamEventFlags kHow = kFSEventStreamEventFlagItemCreated | kFSEventStreamEventFlagItemRenamed;
  if (!isExcluded(folder, name)) takeUp(folder, name, flags & kHow);
}

void WatchedTree::replaced(NodeId node) {
  if (node == DirectoryTree::kRoot) return;  // the root monitor's to notice
  const NodeId parent = tree_.parent(node);
  const std::string name(tree_.name(node));
  forget(node, Why::Left);
  report(parent, {}, kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagItemIsDir, false);
  takeUp(parent, name, kFSEventStreamEventFlagItemCreated);
}

bool WatchedTree::knowsFolder(NodeId folder, std::string_view name) {
  return tree_.child(folder, name) != kNoNode || isLeftOut(folder, name);
}

void WatchedTree::failed(NodeId node, int error) {
  tree_.setFlags(node, tree_.flags(node) | kTroubled);
  reportLoss(isRefused(error) ? LossKind::Rights : LossKind::InputOutput, node, explainFolderFailure(error));
}

}  // namespace platform::fsevents
