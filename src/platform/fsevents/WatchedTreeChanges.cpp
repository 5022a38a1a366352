#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/foundation/preferences/PreferencesWrites.h"
#include "platform/fsevents/PathOpener.h"
#include "platform/fsevents/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// A sixteenth of the shortest queue that the kernel has by itself.
constexpr int kRemovalsBetweenDrains = 1024;

struct FlagRow {
  std::uint32_t raw;
  FSEventStreamEventFlags flag;
};
constexpr FlagRow kFlags[] = {
    // NOLINT(modernize-avoid-c-arrays): a table
    {RawChange::kCreated, kFSEventStreamEventFlagItemCreated},
    {RawChange::kRemoved, kFSEventStreamEventFlagItemRemoved},
    {RawChange::kModified, kFSEventStreamEventFlagItemModified},
    // The only notice of what was stored through a shared mapping.
    {RawChange::kClosedWrite, kFSEventStreamEventFlagItemModified},
    {RawChange::kAttributes, kFSEventStreamEventFlagItemInodeMetaMod},
};

}  // namespace

void WatchedTree::apply(const RawChange& change) {
  if ((change.bits & RawChange::kOverflow) != 0) {
    overflowed_ = true;
    return;
  }
  NodeId folder = tree_.findByKey(change.folder);
  if ((change.bits & RawChange::kForgotten) != 0) {
    if (folder != kNoNode && folder != DirectoryTree::kRoot) forget(folder, Why::Removed);
    return;
  }
  bool silent = change.own && options_.ignoreSelf;
  if ((change.bits & RawChange::kRenamed) != 0) {
    applyRename(change, silent);
    return;
  }
  std::string_view name = change.name;
  if (folder == kNoNode && !rootIsFolder_ && tree_.findByKey(change.target) == DirectoryTree::kRoot) {
    folder = DirectoryTree::kRoot;
    name = {};
  }
  if (folder == kNoNode) return;
  if (folder == DirectoryTree::kRoot && (change.bits & RawChange::kRemoved) != 0) rootLostItem_ = true;
  silent = silent || (options_.ignoreSelf && isOwnPreferences(folder, name));

  FSEventStreamEventFlags flags = 0;
  for (const FlagRow& row : kFlags) {
    if ((change.bits & row.raw) != 0) flags |= row.flag;
  }
  if (flags != 0 && isGhost(folder, name, flags)) return;
  // Only regular files are written to; of the rest the kernel says no more than whether it is a folder.
  const bool isFile = !change.isDirectory && (flags & kFSEventStreamEventFlagItemModified) != 0;
  const bool isFolder = change.isDirectory || (name.empty() && rootIsFolder_);
  if (isFolder) flags |= kFSEventStreamEventFlagItemIsDir;
  if (isFile) flags |= kFSEventStreamEventFlagItemIsFile;
  if (!silent) report(folder, name, flags, !isFile && !isFolder);
  updatePolled(folder, name, flags);

  if (!isFolder) return;
  if ((change.bits & RawChange::kCreated) != 0) folderCreated(folder, name, kFSEventStreamEventFlagItemCreated);
  if ((change.bits & RawChange::kRemoved) != 0) folderRemoved(folder, name, change.target);
  if ((change.bits & RawChange::kAttributes) != 0) attributesChanged(name.empty() ? folder : tree_.child(folder, name));
}

void WatchedTree::attributesChanged(NodeId node) {
  // A folder's new mode decides about the folder itself and about what is in it.
  if (node != kNoNode && status_.losses().any()) lookAgainAt(node);
}

bool WatchedTree::isGhost(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) const {
  // The kernel calls a file that was opened without a name (O_TMPFILE, open(2)) "#" and its inode number.
  if (name.size() < 2 || name.front() != '#' || (flags & (kFSEventStreamEventFlagItemCreated | kFSEventStreamEventFlagItemRemoved)) != 0)
    return false;
  if (!std::all_of(name.begin() + 1, name.end(), [](char digit) { return digit >= '0' && digit <= '9'; })) return false;
  return kindOfItem(options_.openPath + relativePath(folder) + "/" + std::string(name)) == 0;
}

bool WatchedTree::isOwnPreferences(NodeId folder, std::string_view name) const {
  PreferencesWrites& writes = PreferencesWrites::shared();
  if (name.empty() || !source_ || source_->knowsTargets() || !writes.hasName(name)) return false;
  struct stat info {};
  const std::string path = options_.openPath + relativePath(folder);
  return ::stat(path.c_str(), &info) == 0 && writes.isOwnWrite(info.st_dev, info.st_ino, name);
}

void WatchedTree::applyRename(const RawChange& change, bool silent) {
  const NodeId from = tree_.findByKey(change.folder);
  const NodeId to = tree_.findByKey(change.newFolder);
  if (from == DirectoryTree::kRoot) rootLostItem_ = true;
  const FSEventStreamEventFlags flags =
      kFSEventStreamEventFlagItemRenamed | (change.isDirectory ? kFSEventStreamEventFlagItemIsDir : FSEventStreamEventFlags{0});
  const auto reportSide = [&](NodeId folder, std::string_view name) {
    if (folder == kNoNode || silent || (options_.ignoreSelf && isOwnPreferences(folder, name))) return;
    report(folder, name, flags, !change.isDirectory);
  };
  reportSide(from, change.name);
  reportSide(to, change.newName);
  updatePolled(from, change.name, flags);
  updatePolled(to, change.newName, flags);
  if (change.isDirectory) folderRenamed(from, change.name, to, change.newName, change.target, silent);
}

void WatchedTree::folderCreated(NodeId folder, std::string_view name, FSEventStreamEventFlags report) {
  if (name.empty() || isExcluded(folder, name)) return;
  takeUp(folder, name, report);
}

void WatchedTree::takeUp(NodeId folder, std::string_view name, FSEventStreamEventFlags report, int attempts) {
  if (!mountPoints_.empty() && mountPoints_.contains(relativePath(folder).append("/").append(name))) return;
  FileHandle opened = openFolder(folder, name);
  if (!opened.isOpen()) {
    const int error = errno;
    if (!isGone(error)) {
      openFailed(folder, name, nullptr, error);
    } else {
      seemsGone(folder, name, report, attempts);
    }
    return;
  }
  KernelKey key;
  // Asked without a mark: the crawl marks, and says what a refusal means.
  if (source_ && source_->keyOf(opened.fileDescriptor(), key) != 0) key.clear();
  const NodeId known = tree_.findByKey(key.view());
  if (known == kNoNode) {
    crawl(folder, name, std::move(opened), report);
    return;
  }
  const NodeId there = tree_.child(folder, name);
  if (known == there) {
    if ((tree_.flags(known) & kTroubled) != 0) crawl(folder, name, std::move(opened), report);
    return;
  }
  // Known in another place. Where that place still holds it, or the change that brings it here is still in the queue, nothing is to be
  // done.
  if (!tree_.isDetached(known) && (source_->knowsTargets() || isStillAt(known, key.view()))) return;
  if (tree_.isBelowOrSame(folder, known)) return;
  if (there != kNoNode) displace(there);
  moveNode(known, folder, name);
}

void WatchedTree::folderRemoved(NodeId folder, std::string_view name, std::string_view target) {
  if (!target.empty()) {
    const NodeId node = tree_.findByKey(target);
    if (node != kNoNode && node != DirectoryTree::kRoot) forget(node, Why::Removed);
    return;
  }
  const NodeId node = name.empty() ? kNoNode : tree_.child(folder, name);
  if (node == kNoNode) return;
  // The name may already belong to a new folder, which must not be forgotten for the old one's sake.
  const FileHandle opened = openFolder(folder, name);
  if (opened.isOpen()) {
    KernelKey key;
    if (source_ && source_->keyOf(opened.fileDescriptor(), key) == 0 && key.view() == tree_.key(node)) return;
    forget(node, Why::Removed);
    takeUp(folder, name, kFSEventStreamEventFlagItemCreated);
    return;
  }
  const bool keptByKernel = source_ && source_->knowsTargets();
  forget(node, Why::Removed);
  if (!keptByKernel) retryLater(folder, name, kFSEventStreamEventFlagItemCreated, kAttemptsWhenGone - 1);
}

void WatchedTree::folderRenamed(NodeId from, std::string_view oldName, NodeId to, std::string_view newName, std::string_view target,
                                bool silent) {
  const bool exact = !target.empty();
  NodeId node = exact ? tree_.findByKey(target) : kNoNode;
  if (!exact && from != kNoNode) node = tree_.child(from, oldName);
  if (exact) {
    // The queue is not the last word on where the folder is: unread renames of one folder merge, and a listing may have been ahead of the
    // queue.
    if (node != kNoNode && node != DirectoryTree::kRoot) {
      sight(target, tree_.parent(node), tree_.name(node));
      // A listing was ahead: what the queue tells until it has come that far leads back to where the listing found the folder.
      const bool isAhead = !tree_.isDetached(node) && (tree_.parent(node) != from || tree_.name(node) != oldName);
      if (isAhead && !arrivals_.contains(target)) expectArrival(target, tree_.parent(node), std::string(tree_.name(node)));
    }
    sight(target, from, oldName);
    sight(target, to, newName);
  }
  if (to == kNoNode || isExcluded(to, newName)) {
    // It left. Unless the tree knows it in another place by now: then a listing was faster than the queue.
    const bool believed = node != kNoNode && tree_.parent(node) == from && tree_.name(node) == oldName;
    if (believed && !arrive(node)) forget(node, Why::Left);
    return;
  }
  const FSEventStreamEventFlags flags = silent ? 0 : kFSEventStreamEventFlagItemRenamed;
  if (node == kNoNode) {
    takeUp(to, newName, flags);
    return;
  }
  if (tree_.isBelowOrSame(to, node)) {
    doubted_ = doubted_ || !exact;
    return;
  }
  const NodeId occupant = tree_.child(to, newName);
  if (occupant != node) {
    if (occupant != kNoNode) displace(occupant);
    moveNode(node, to, newName);
  }
  if (!exact) checkPlace(node, from, oldName, flags);
}

void WatchedTree::forget(NodeId node, Why why) {
  pathsChanged();
  if (status_.losses().any() && !tree_.isDetached(node)) status_.losses().forget(reportedPathOf(node));
  const bool wasRegion = region_ != nullptr;
  int removed = 0;
  tree_.remove(node, [&](NodeId gone) {
    if (why == Why::Removed && region_ && region_->contains(gone)) region_->tellAllRemoved(gone, *this);
    pollNoLonger(gone);
    if ((tree_.flags(gone) & kMarked) == 0) return;
    --marked_;
    // A removed folder takes its mark along; only inotify can be asked to let go of one at all.
    if (!source_ || (why == Why::Removed && source_->knowsTargets())) return;
    source_->forget(tree_.key(gone), rootDescriptor());
    // The kernel tells the end of each mark, and its queue holds only so much.
    if (++removed % kRemovalsBetweenDrains == 0) drain();
  });
  pathsChanged();
  if (wasRegion) tellRegion();
}

}  // namespace platform::fsevents
