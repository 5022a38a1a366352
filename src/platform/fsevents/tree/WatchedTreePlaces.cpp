#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/fsevents/folders/PathOpener.h"
#include "platform/fsevents/tree/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// So many folders are held open at most while the queue is read.
constexpr std::size_t kMaximumLooks = 64;
/// How often a place is looked at whose folder is not where the tree has it, although nothing is left to be read.
constexpr int kMaximumTries = 100;

}  // namespace

// Where the queue and the disk disagree about the place of a folder: what may be believed, and when.

WatchedTree::Where WatchedTree::whereIs(NodeId node) const {
  const std::string_view key = tree_.key(node);
  return key.empty() ? Where{{}, relativePath(node)} : Where{std::string(key), {}};
}

NodeId WatchedTree::find(const Where& where) const { return where.key.empty() ? findByPath(where.path) : tree_.findByKey(where.key); }

NodeId WatchedTree::findByPath(std::string_view relative) const {
  NodeId node = DirectoryTree::kRoot;
  while (!relative.empty() && node != kNoNode) {
    const std::size_t end = std::min(relative.find('/', 1), relative.size());
    node = tree_.child(node, relative.substr(1, end - 1));
    relative.remove_prefix(end);
  }
  return node;
}

WatchedTree::Presence WatchedTree::presenceOf(NodeId node) {
  const FileHandle opened = openFolder(node);
  if (!opened.isOpen()) {
    const int error = errno;
    if (isShortage(error)) return Presence::Unknown;
    return isGone(error) || isCovered(error) ? Presence::Elsewhere : presenceOfClosed(node);
  }
  if (!source_) return Presence::There;
  KernelKey found;
  if (const int error = source_->keyOf(opened.fileDescriptor(), found); error != 0)
    return isShortage(error) ? Presence::Unknown : Presence::Elsewhere;
  return found.view() == tree_.key(node) ? Presence::There : Presence::Elsewhere;
}

WatchedTree::Presence WatchedTree::presenceOfClosed(NodeId node) {
  if (node == DirectoryTree::kRoot || !source_) return Presence::Elsewhere;
  const FileHandle above = openFolder(tree_.parent(node));
  if (!above.isOpen()) return isShortage(errno) ? Presence::Unknown : Presence::Elsewhere;
  KernelKey found;
  source_->identify(above.fileDescriptor(), std::string(tree_.name(node)).c_str(), found);
  // Where the source cannot tell, what it told before holds.
  return found.empty() || found.view() == tree_.key(node) ? Presence::There : Presence::Elsewhere;
}

bool WatchedTree::isNode(const FileHandle& opened, NodeId node) {
  if (!opened.isOpen()) return false;
  KernelKey found;
  return tree_.key(node).empty() || (source_ && source_->keyOf(opened.fileDescriptor(), found) == 0 && found.view() == tree_.key(node));
}

bool WatchedTree::isAtItsPlace(NodeId node, int folder) {
  const FileHandle there = openFolder(node);
  struct stat expected {};
  struct stat found {};
  return there.isOpen() && ::fstat(folder, &expected) == 0 && ::fstat(there.fileDescriptor(), &found) == 0 &&
         expected.st_ino == found.st_ino && expected.st_dev == found.st_dev;
}

void WatchedTree::unsettle(NodeId folder, std::string_view name, std::string_view target, FSEventStreamEventFlags report, bool isUntold) {
  // Below a folder that is only compared the next look decides.
  if (folder == kNoNode || name.empty() || isBeyondKernel(folder) || isExcluded(folder, name)) return;
  unsettled_.add({whereIs(folder), std::string(name), std::string(target), report, isUntold, 0});
}

void WatchedTree::resolveUnsettled() {
  for (bool again = !unsettled_.empty(); again && !isStopped();) {
    again = false;
    std::vector<Look> looks = lookAtUnsettled();
    if (looks.empty()) return;
    // Everything that had happened before the look has been read now. If no folder came, went or moved, what was seen holds.
    const std::uint64_t before = structure_;
    drain();
    bool waits = false;
    if (source_) waits = source_->dispatch([this](const RawChange& change) { apply(change); }).has_value();
    isBlind_ = std::any_of(looks.begin(), looks.end(), [](const Look& look) { return look.isBlind; });
    if (waits || structure_ != before || overflowed_ || backlogDropped_ || isBlind_) {
      for (Look& look : looks) unsettled_.add(std::move(look.place));
      return;
    }
    std::vector<Look*> missing;
    for (Look& look : looks) {
      // What was seen by way of a folder that has got another place in the tree meanwhile is seen anew.
      if (again) {
        unsettled_.add(std::move(look.place));
      } else if (look.folder == kNoNode || (look.isFolderThere && look.key.view() != look.place.target)) {
        missing.push_back(&look);
        again = look.opened.isOpen() && resolve(look);
      } else {
        again = resolve(look);
      }
    }
    for (Look* look : missing) {
      if (again) {
        unsettled_.add(look->place);
      } else if (std::none_of(looks.begin(), looks.end(), [&](const Look& other) {
                   return other.place.target == look->place.target && other.key.view() == other.place.target;
                 })) {
        resolveMissing(*look);
      }
    }
  }
}

std::vector<WatchedTree::Look> WatchedTree::lookAtUnsettled() {
  std::vector<Look> looks;
  std::vector<UnsettledPlace> places = unsettled_.take();
  for (std::size_t i = 0; i < places.size();) {
    std::size_t end = i + 1;
    while (end < places.size() && !places[i].target.empty() && places[end].target == places[i].target) ++end;
    if (looks.size() >= kMaximumLooks) {
      for (; i < end; ++i) unsettled_.add(std::move(places[i]));
      continue;
    }
    const std::string target = places[i].target;
    const NodeId node = tree_.findByKey(target);
    const bool isUntold = std::any_of(places.begin() + static_cast<std::ptrdiff_t>(i), places.begin() + static_cast<std::ptrdiff_t>(end),
                                      [](const UnsettledPlace& place) { return place.isUntold; });
    // Queue and disk agree.
    if (node != kNoNode && !isUntold && !tree_.isDetached(node) && isStillAt(node)) {
      i = end;
      continue;
    }
    for (std::size_t k = i; k < end; ++k) {
      Look look;
      look.place = std::move(places[k]);
      if (lookAt(look)) looks.push_back(std::move(look));
    }
    i = end;
  }
  return looks;
}

bool WatchedTree::lookAt(Look& look) {
  look.folder = find(look.place.folder);
  const NodeId node = tree_.findByKey(look.place.target);
  if (node != kNoNode && node != DirectoryTree::kRoot) {
    const Presence target = presenceOf(node);
    const Presence above = target == Presence::Elsewhere ? presenceOf(tree_.parent(node)) : Presence::There;
    look.isTargetThere = target == Presence::There;
    look.isTargetGone = target == Presence::Elsewhere && above == Presence::There;
    look.isBlind = target == Presence::Unknown || above == Presence::Unknown;
  }
  if (look.place.isUntold && node != kNoNode && !tree_.isDetached(node) && node != DirectoryTree::kRoot) {
    // Wherever it is by now.
    look.folder = tree_.parent(node);
    look.place.folder = whereIs(look.folder);
    look.place.name = tree_.name(node);
  }
  // Excluded since it was put here: its folder, or one above that, has been renamed.
  if (look.folder != kNoNode && isExcluded(look.folder, look.place.name)) look.folder = kNoNode;
  if (look.folder == kNoNode) return node != kNoNode && tree_.isDetached(node);
  look.openedAt = readQueue();
  const FileHandle above = openFolder(look.folder);
  look.isBlind = look.isBlind || (!above.isOpen() && isShortage(errno));
  look.isFolderThere = isNode(above, look.folder);
  if (!look.isFolderThere) return true;
  look.opened = openFolderIn(above.fileDescriptor(), look.place.name.c_str());
  look.error = look.opened.isOpen() ? 0 : errno;
  look.isBlind = look.isBlind || isShortage(look.error);
  if (look.opened.isOpen() && source_ && source_->keyOf(look.opened.fileDescriptor(), look.key) != 0) look.key.clear();
  return true;
}

bool WatchedTree::resolve(Look& look) {
  // A folder that came meanwhile may have taken a number that another had.
  if (look.folder != kNoNode && find(look.place.folder) != look.folder) look.folder = kNoNode;
  if (look.folder != kNoNode && !look.isFolderThere) {
    // The folder around it is not where the tree has it, and nothing was told: it must be settled first.
    if (++look.place.tries > kMaximumTries) {
      doubt();
    } else if (look.folder != DirectoryTree::kRoot) {
      if (!tree_.isDetached(look.folder)) unsettle(tree_.parent(look.folder), tree_.name(look.folder), tree_.key(look.folder));
      unsettled_.add(std::move(look.place));
    }
    return false;
  }
  if (look.folder != kNoNode && look.opened.isOpen()) {
    if (resolveFound(look)) return true;
  } else if (look.folder != kNoNode && !isGone(look.error)) {
    openFailed(look.folder, look.place.name, nullptr, look.error);
  } else if (look.folder != kNoNode) {
    // Nobody will tell the end of a folder that nobody knows by a key.
    const NodeId there = tree_.child(look.folder, look.place.name);
    if (there != kNoNode && tree_.key(there).empty()) forget(there, Why::Removed);
  }
  return false;
}

bool WatchedTree::resolveFound(Look& look) {
  const NodeId known = tree_.findByKey(look.key.view());
  const NodeId there = tree_.child(look.folder, look.place.name);
  const FSEventStreamEventFlags flags = look.place.report;
  const auto tellPlace = [&](FSEventStreamEventFlags how) {
    if (how != 0) report(look.folder, look.place.name, how | kFSEventStreamEventFlagItemIsDir, false);
  };
  if (known == kNoNode || (known == there && look.place.isUntold)) {
    crawl(look.folder, look.place.name, std::move(look.opened), look.openedAt, flags);
    tellPlace(flags);
    return false;
  }
  // What was resolved before it may have found the folder where it is now.
  if (known == there || (!tree_.isDetached(known) && isStillAt(known))) return false;
  if (isBeyondKernel(known) && !tree_.isBelowOrSame(look.folder, known)) {
    forget(known, Why::Left);
    crawl(look.folder, look.place.name, std::move(look.opened), look.openedAt, kFSEventStreamEventFlagItemRenamed);
    tellPlace(kFSEventStreamEventFlagItemRenamed);
    return true;
  }
  if (tree_.isBelowOrSame(look.folder, known)) {
    if (++look.place.tries > kMaximumTries) {
      doubt();
    } else {
      unsettled_.add(std::move(look.place));
    }
    return false;
  }
  if (there != kNoNode) displace(there);
  if (!tree_.isDetached(known))
    report(tree_.parent(known), tree_.name(known), kFSEventStreamEventFlagItemRenamed | kFSEventStreamEventFlagItemIsDir, false);
  moveNode(known, look.folder, look.place.name);
  tellPlace(kFSEventStreamEventFlagItemRenamed);
  return true;
}

void WatchedTree::resolveMissing(Look& look) {
  const NodeId node = tree_.findByKey(look.place.target);
  if (node == kNoNode || node == DirectoryTree::kRoot || look.isTargetThere) return;
  // At the place where it is missing others may ask for it in vain, as long as they lie within it.
  if (unsettled_.hasTarget(look.place.target, whereIs(tree_.parent(node)), tree_.name(node))) return;
  // What was resolved before it may have found the folder where it is now.
  if (const Presence now = presenceOf(node); now != Presence::Elsewhere) {
    if (now == Presence::Unknown) unsettled_.add(std::move(look.place));
    return;
  }
  if (look.isTargetGone) {
    // Where another stands now, the folder's own change says what is to be known.
    const NodeId there = tree_.child(tree_.parent(node), tree_.name(node));
    if (there == kNoNode || there == node) tellPolledRemoved(node);
    forget(node, Why::Left);
  } else if (const NodeId parent = tree_.parent(node); ++look.place.tries > kMaximumTries) {
    doubt();
  } else {
    // The folder around it is not where the tree has it either: that one must be settled first.
    if (parent != DirectoryTree::kRoot && !tree_.isDetached(parent)) unsettle(tree_.parent(parent), tree_.name(parent), tree_.key(parent));
    unsettled_.add(std::move(look.place));
  }
}

void WatchedTree::moveNode(NodeId node, NodeId newParent, std::string_view newName) {
  pathsChanged();
  ++structure_;
  movedFolders_ = true;
  const bool hasLosses = status_.losses().any();
  const std::string from = !exclusions_.empty() || hasLosses || region_ ? relativePath(node) : std::string();
  const bool wasDetached = tree_.isDetached(node);
  tree_.move(node, newParent, newName);
  if (hasLosses && !wasDetached) status_.losses().move(options_.reportedPath + from, reportedPathOf(node));
  if (region_) polledMoved(node, from);
  // One that is troubled for a while may have left the list when it had no place.
  if (!troubles_.empty() || wasDetached) troublesMoved(node);
  if (!exclusions_.empty()) exclusionsMoved(node, from);
}

void WatchedTree::exclusionsMoved(NodeId node, std::string_view formerPath) {
  const std::string path = relativePath(node);
  if (path == formerPath) return;
  // What is left out belongs to the path: it is watched under the folder's new name, and what has come under it is not.
  for (const std::string& part : exclusions_.partsBelow(path)) {
    if (const NodeId hidden = findByPath(path + part); hidden != kNoNode) forget(hidden, Why::Left);
  }
  for (const std::string& part : exclusions_.partsBelow(formerPath)) {
    if (exclusions_.contain(path + part)) continue;
    const std::size_t slash = part.rfind('/');
    const NodeId parent = findByPath(path + part.substr(0, slash));
    if (parent == kNoNode) continue;
    unsettle(parent, part.substr(slash + 1), {}, kFSEventStreamEventFlagItemRenamed);
  }
}

void WatchedTree::displace(NodeId node) {
  if (tree_.key(node).empty()) {
    forget(node, Why::Removed);  // nothing could ever claim it
    return;
  }
  pathsChanged();
  if (status_.losses().any()) status_.losses().forget(reportedPathOf(node));
  unsettle(tree_.parent(node), tree_.name(node), tree_.key(node));
  tree_.detach(node);
}

}  // namespace platform::fsevents
