#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/foundation/preferences/PreferencesWrites.h"
#include "platform/fsevents/folders/PathOpener.h"
#include "platform/fsevents/tree/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// A sixteenth of the shortest queue that the kernel has by itself.
constexpr int kRemovalsBetweenDrains = 1024;

/// The end of a mount, or of the watched folder, is others' to notice, and this is when they have.
constexpr std::chrono::seconds kReplacedPause(1);

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
  NodeId folder = findOf(change.folder);
  if (folder != kNoNode && (change.bits & RawChange::kRenamed) == 0 && isLeftMark(folder, change)) return;
  if ((change.bits & RawChange::kForgotten) != 0) {
    if (folder == DirectoryTree::kRoot) {
      if (!replacedAt_) replacedAt_ = Clock::now() + kReplacedPause;
    } else if (folder != kNoNode) {
      forget(folder, Why::Removed);
    }
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
  if ((change.bits & RawChange::kCreated) != 0) folderCreated(folder, name, change.target);
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
  const auto told = [this](std::string_view key) {
    const NodeId node = findOf(key);
    return node != kNoNode && isBeyondKernel(node) ? kNoNode : node;
  };
  const NodeId from = told(change.folder);
  const NodeId to = told(change.newFolder);
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
  if (!change.isDirectory) return;
  folderRenamed(from, change.name, to, change.newName, change.target, silent);
  followMerged(change);
}

void WatchedTree::folderCreated(NodeId folder, std::string_view name, std::string_view target) {
  ++structure_;
  if (!name.empty() && !isExcluded(folder, name)) takeUp(folder, name, kFSEventStreamEventFlagItemCreated, target);
}

void WatchedTree::takeUp(NodeId folder, std::string_view name, FSEventStreamEventFlags report, std::string_view target) {
  if (isHidden(folder, name)) return;
  if (isBeyondKernel(folder)) {
    takeUpCompared(folder, name, report);
    return;
  }
  // By way of the folder, which may not be where the tree has it: then what stands at that path says nothing.
  const std::uint64_t before = readQueue();
  const FileHandle above = openFolder(folder);
  if (!isNode(above, folder)) {
    unsettle(folder, name, target, report);
    return;
  }
  FileHandle opened = openFolderIn(above.fileDescriptor(), std::string(name).c_str());
  if (!opened.isOpen()) {
    const int error = errno;
    if (isGone(error)) {
      unsettle(folder, name, target, report);
    } else {
      openFailed(folder, name, nullptr, error);
    }
    return;
  }
  // Asked without a mark: the crawl marks, and says what a refusal means.
  KernelKey key;
  if (!source_ || source_->keyOf(opened.fileDescriptor(), key) != 0) key.clear();
  const NodeId known = tree_.findByKey(key.view());
  if (known == kNoNode) {
    if (target.empty() || key.view() == target) {
      crawl(folder, name, std::move(opened), before, report);
    } else {
      unsettle(folder, name, target, report);
    }
  } else if (known != tree_.child(folder, name)) {
    unsettle(folder, name, key.view(), report);
  } else if ((tree_.flags(known) & kTroubled) != 0) {
    crawl(folder, name, std::move(opened), before, report);
  }
}

void WatchedTree::folderRemoved(NodeId folder, std::string_view name, std::string_view target) {
  ++structure_;
  const NodeId node = name.empty() ? kNoNode : tree_.child(folder, name);
  if (!target.empty()) {
    if (const NodeId known = tree_.findByKey(target); known != kNoNode) {
      if (known != DirectoryTree::kRoot) forget(known, Why::Removed);
      return;
    }
    // One that could not be read may have no key, so that only its name tells it from others.
    if (node == kNoNode || !tree_.key(node).empty()) return;
  }
  if (node == kNoNode) return;
  // The name may already belong to a new folder, which must not be forgotten for the old one's sake: the end of the watch tells.
  if (tree_.key(node).empty()) {
    forget(node, Why::Removed);
    takeUp(folder, name, kFSEventStreamEventFlagItemCreated);
  } else {
    unsettle(folder, name, tree_.key(node), kFSEventStreamEventFlagItemCreated);
  }
}

void WatchedTree::folderRenamed(NodeId from, std::string_view oldName, NodeId to, std::string_view newName, std::string_view target,
                                bool silent) {
  ++structure_;
  const FSEventStreamEventFlags flags = silent ? 0 : kFSEventStreamEventFlagItemRenamed;
  NodeId node = findOf(target);
  if (node == kNoNode && tree_.findByKey(target) != kNoNode) return;  // it is known where it went
  bool isGuess = false;
  if (target.empty() && from != kNoNode) {
    // Of a folder that is not watched the kernel tells the names only. One that is known under that name all the same is another, that came
    // after it; or it moved after it had been opened and before it was marked.
    const NodeId namesake = tree_.child(from, oldName);
    if (namesake != kNoNode && (tree_.key(namesake).empty() || mayHaveMovedUnmarked(namesake))) {
      node = namesake;
      isGuess = tree_.key(namesake).empty();
    } else if (node = displacedUnmarked(from, oldName); node == kNoNode && namesake != kNoNode) {
      unsettle(from, oldName, tree_.key(namesake), flags);
    }
  }
  if (node == DirectoryTree::kRoot) return;
  if (node != kNoNode && !tree_.isDetached(node) && isBeyondKernel(tree_.parent(node))) {
    if (to == kNoNode) return;  // a look has found it where it went
    forget(node, Why::Left);
    node = kNoNode;
  }
  if (to == kNoNode || isExcluded(to, newName)) {
    if (node != kNoNode) forget(node, Why::Left);
    // Perhaps it was another, that came after the one of which this is told.
    if (isGuess) takeUp(from, oldName, flags);
    return;
  }
  if (node == kNoNode) {
    takeUp(to, newName, flags, target);
    return;
  }
  // Unread renames of one folder may have been merged into an earlier one: where it was and is now must be looked at.
  if (!target.empty()) {
    if (!tree_.isDetached(node)) unsettle(tree_.parent(node), tree_.name(node), target, flags);
    unsettle(from, oldName, target, flags);
    unsettle(to, newName, target, flags);
  }
  if (tree_.isBelowOrSame(to, node)) return;
  const NodeId occupant = tree_.child(to, newName);
  if (occupant == node) return;
  if (occupant != kNoNode) displace(occupant);
  moveNode(node, to, newName);
  if (isGuess) takeUp(from, oldName, flags);
}

NodeId WatchedTree::findOf(std::string_view key) {
  const NodeId node = tree_.findByKey(key);
  if (node == kNoNode || young_.empty()) return node;
  const std::uint64_t now = source_->position();
  const auto youth = young_.find(node);
  const bool isOlder = youth != young_.end() && now < youth->second.opened;
  return isOlder ? kNoNode : node;
}

NodeId WatchedTree::displacedUnmarked(NodeId folder, std::string_view name) {
  for (const auto& [node, youth] : young_) {
    const bool isOfPlace = tree_.isDetached(node) && tree_.parent(node) == folder && tree_.name(node) == name;
    if (isOfPlace && mayHaveMovedUnmarked(node)) return node;
  }
  return kNoNode;
}

bool WatchedTree::mayHaveMovedUnmarked(NodeId node) {
  const auto youth = young_.find(node);
  if (youth == young_.end()) return false;
  const std::uint64_t now = source_->position();
  return now >= youth->second.opened && now < youth->second.marked && !isStillAt(node);
}

void WatchedTree::forget(NodeId node, Why why) {
  pathsChanged();
  // What is mounted in it went with it.
  movedFolders_ = movedFolders_ || why == Why::Left;
  if (status_.losses().any() && !tree_.isDetached(node)) status_.losses().forget(reportedPathOf(node));
  const bool wasRegion = region_ != nullptr;
  int removed = 0;
  tree_.remove(node, [&](NodeId gone) {
    if (why == Why::Removed && region_ && region_->contains(gone)) region_->tellAllRemoved(gone, *this);
    pollNoLonger(gone);
    young_.erase(gone);
    if ((tree_.flags(gone) & kMarked) == 0) return;
    --marked_;
    // A removed folder takes its mark along. It was empty: what the tree still has below it has gone elsewhere.
    if (!source_ || (why == Why::Removed && gone == node && source_->knowsTargets())) return;
    source_->forget(tree_.key(gone), rootDescriptor());
    // The kernel tells the end of each mark, and its queue holds only so much.
    if (++removed % kRemovalsBetweenDrains == 0) drain();
  });
  pathsChanged();
  if (wasRegion) tellRegion();
}

}  // namespace platform::fsevents
