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

/// How often the kernel queue is emptied while a long folder is listed.
constexpr int kEntriesBetweenDrains = 8192;
/// So many names are held until it is certain that their folder was where the tree has it while it was read.
constexpr std::size_t kHeldNames = 1000;
/// Instead of errno: the folder was listed, and is known no longer.
constexpr int kLeftMeanwhile = -1;

/// Whether a mark was refused because this source cannot serve this file system.
bool isUnsuitable(int error) { return error == EXDEV || error == EOPNOTSUPP || error == ENODEV || error == ENOSYS || error == EINVAL; }

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
  int error = markBelow(parent, descriptor, key);
  const bool isMarked = source_ && error == 0;
  if (!isMarked && parent != kNoNode && (isGone(error) || isRefused(error))) {
    openFailed(parent, name, nullptr, error);
    return;
  }
  refusesSource_ = refusesSource_ || (source_ && isUnsuitable(error));
  if (refusesSource_) return;
  const NodeId node = settle(parent, name, key.view());
  if (node == kNoNode) return;
  if (isMarked) {
    marked(node, openedAt);
  } else {
    seenAhead(node, openedAt);
  }
  // All that is in it is told, or covered by the loss that is told, or was never told.
  if (isMarked && !options_.policy.isForeign()) pollNoLonger(node);
  tree_.setGeneration(node, generation_);
  // What the polling compares with is read before the listing: what comes in between is in the listing, and found once more.
  const bool isPolled = !isMarked || options_.policy.isForeign();
  // Its place before and after it was read: what is seen in between is told there, and missed there later.
  if (!isMarked && node != DirectoryTree::kRoot && !isAtItsPlace(node, descriptor)) {
    leftMeanwhile(node, report);
    return;
  }
  const bool isReadable = !isPolled || poll(node, descriptor, isMarked ? 0 : error);
  error = isReadable ? list(node, std::move(folder), report, stack) : errno;
  if (error == kLeftMeanwhile) return;
  if (error == 0) {
    recovered(node);
  } else {
    troubled(node, error);
  }
}

void WatchedTree::marked(NodeId node, std::uint64_t openedAt) {
  const std::uint8_t flags = tree_.flags(node);
  if ((flags & kMarked) != 0) return;
  ++marked_;
  tree_.setFlags(node, flags | kMarked);
  seenAhead(node, openedAt);
}

void WatchedTree::seenAhead(NodeId node, std::uint64_t openedAt) {
  // What is still in the queue may be of an earlier mark, and of another place.
  if (const std::uint64_t after = readQueue(); source_ && source_->position() < after) young_[node] = {openedAt, after};
}

NodeId WatchedTree::place(NodeId parent, std::string_view name) {
  if (parent == kNoNode) return DirectoryTree::kRoot;
  const NodeId node = tree_.child(parent, name);
  return node == kNoNode ? tree_.add(parent, name, {}) : node;
}

NodeId WatchedTree::settle(NodeId parent, std::string_view name, std::string_view key) {
  NodeId known = tree_.findByKey(key);
  const NodeId there = parent == kNoNode ? DirectoryTree::kRoot : tree_.child(parent, name);
  if (known != kNoNode && known == there) return there;
  if (parent == kNoNode) {
    if (known == kNoNode) tree_.setKey(there, key);
    return known == kNoNode ? there : kNoNode;
  }
  if (isBeyondKernel(parent)) {
    // Seen in two places by one crawl, or within itself: the next look at the folder around it shows which it was.
    if (known != kNoNode && (tree_.isBelowOrSame(parent, known) || tree_.generation(known) == generation_)) return kNoNode;
    if (known != kNoNode) forget(known, Why::Left);
    if (there != kNoNode && tree_.key(there) == key) return there;
    if (there != kNoNode) forget(there, Why::Left);
    return tree_.add(parent, name, source_ && source_->knowsTargets() ? key : std::string_view{});
  }
  if (known != kNoNode && isBeyondKernel(known) && tree_.generation(known) != generation_ && !tree_.isBelowOrSame(parent, known)) {
    forget(known, Why::Left);
    known = kNoNode;
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
  const std::size_t pending = stack.size();
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
  const bool isCompared = isBeyondKernel(node);
  if (!held.empty() || isCompared) tellHeld();
  if (isInPlace || node == DirectoryTree::kRoot) return error;
  if (!isCompared) {
    unsettle(tree_.parent(node), tree_.name(node), tree_.key(node), flags, true);
    return error;
  }
  stack.erase(stack.begin() + static_cast<std::ptrdiff_t>(pending), stack.end());
  leftMeanwhile(node, flags);
  return kLeftMeanwhile;
}

}  // namespace platform::fsevents
