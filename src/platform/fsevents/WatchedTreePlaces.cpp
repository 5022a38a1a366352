#include <algorithm>
#include <utility>

#include "platform/fsevents/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// How long the kernel may take to tell what the disk shows already.
constexpr std::chrono::milliseconds kPatience(10);

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

void WatchedTree::sight(std::string_view target, NodeId folder, std::string_view name) {
  if (folder == kNoNode || isExcluded(folder, name)) return;
  sightings_.push_back({std::string(target), whereIs(folder), std::string(name), Clock::now() + kPatience});
}

void WatchedTree::checkPlace(NodeId node, NodeId formerParent, std::string_view formerName, FSEventStreamEventFlags report) {
  const NodeId parent = tree_.parent(node);
  const std::string name(tree_.name(node));
  const FileHandle opened = openFolder(node);
  if (!opened.isOpen()) return;  // moved on: the queue will tell
  KernelKey key;
  if (!source_ || source_->keyOf(opened.fileDescriptor(), key) != 0 || key.view() == tree_.key(node)) return;
  const std::string former(formerName);
  displace(node);
  takeUp(parent, name, report);
  // Whoever was taken for the other is likely to be where the other came from.
  if (formerParent != kNoNode && tree_.isDetached(node)) takeUp(formerParent, former, report);
}

void WatchedTree::checkSightings() {
  std::vector<Sighting> unsettled = std::exchange(sightings_, {});
  std::stable_sort(unsettled.begin(), unsettled.end(), [](const Sighting& a, const Sighting& b) { return a.target < b.target; });
  // One folder's place may depend on another's.
  for (std::size_t before = 0; !unsettled.empty() && before != unsettled.size();) {
    before = unsettled.size();
    settleSightings(unsettled);
  }
  // A folder on the way may have moved, which is still to be read: it is looked at again after everything has been read that the kernel had
  // to tell by then.
  std::erase_if(unsettled, [this](const Sighting& sighting) { return sighting.until <= drainedAt_; });
  sightings_.insert(sightings_.end(), std::make_move_iterator(unsettled.begin()), std::make_move_iterator(unsettled.end()));
}

void WatchedTree::settleSightings(std::vector<Sighting>& sightings) {
  std::vector<Sighting> unsettled;
  for (std::size_t i = 0; i < sightings.size();) {
    std::size_t end = i + 1;
    while (end < sightings.size() && sightings[end].target == sightings[i].target) ++end;
    const NodeId node = tree_.findByKey(sightings[i].target);
    bool settled = node != kNoNode && isStillAt(node, sightings[i].target);
    for (std::size_t k = end; k-- > i && !settled;) settled = placeAt(sightings[k], node);
    if (!settled)
      unsettled.insert(unsettled.end(), sightings.begin() + static_cast<std::ptrdiff_t>(i),
                       sightings.begin() + static_cast<std::ptrdiff_t>(end));
    i = end;
  }
  sightings.swap(unsettled);
}

bool WatchedTree::placeAt(const Sighting& sighting, NodeId node) {
  const NodeId folder = find(sighting.folder);
  if (folder == kNoNode || (node != kNoNode && tree_.isBelowOrSame(folder, node))) return false;
  const FileHandle opened = openFolder(folder, sighting.name);
  KernelKey key;
  if (!opened.isOpen() || source_->keyOf(opened.fileDescriptor(), key) != 0 || key.view() != sighting.target) return false;
  if (node == kNoNode) {
    takeUp(folder, sighting.name, kFSEventStreamEventFlagItemRenamed);
    return true;
  }
  if (const NodeId occupant = tree_.child(folder, sighting.name); occupant != kNoNode && occupant != node) displace(occupant);
  moveNode(node, folder, sighting.name);
  return true;
}

void WatchedTree::expectArrival(std::string_view key, NodeId folder, std::string_view name) {
  arrivals_.insert_or_assign(std::string(key), Sighting{std::string(key), whereIs(folder), std::string(name), {}});
}

bool WatchedTree::arrive(NodeId node) {
  const auto arrival = arrivals_.find(tree_.key(node));
  if (arrival == arrivals_.end()) return false;
  const Sighting place = std::move(arrival->second);
  arrivals_.erase(arrival);
  const NodeId folder = find(place.folder);
  if (folder == kNoNode || tree_.isBelowOrSame(folder, node)) return false;
  // It may have been outside in between, where its changes could not be followed: it is taken up like any other that moves in.
  forget(node, Why::Left);
  takeUp(folder, place.name, kFSEventStreamEventFlagItemRenamed);
  return true;
}

void WatchedTree::resolveArrivals() {
  for (auto& [key, place] : std::exchange(arrivals_, {})) {
    const NodeId node = tree_.findByKey(key);
    const NodeId folder = find(place.folder);
    if (folder == kNoNode) continue;
    if (node != kNoNode) {
      if (isStillAt(node, key)) continue;
      // What the queue has not told now that it has been read to its end, it will not tell.
      if (!hasReadEverything()) {
        arrivals_.emplace(key, std::move(place));
        continue;
      }
      if (tree_.isBelowOrSame(folder, node)) {
        doubt();
        continue;
      }
      forget(node, Why::Left);
    }
    takeUp(folder, place.name, kFSEventStreamEventFlagItemRenamed);
  }
}

void WatchedTree::moveNode(NodeId node, NodeId newParent, std::string_view newName) {
  pathsChanged();
  movedFolders_ = true;
  const bool hasLosses = status_.losses().any();
  const std::string from = !exclusions_.empty() || hasLosses || region_ ? relativePath(node) : std::string();
  const bool wasDetached = tree_.isDetached(node);
  tree_.move(node, newParent, newName);
  if (hasLosses && !wasDetached) status_.losses().move(options_.reportedPath + from, reportedPathOf(node));
  if (region_) polledMoved(node, from);
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
    unexcluded_.push_back({whereIs(parent), part.substr(slash + 1), kFSEventStreamEventFlagItemRenamed, kAttemptsWhenGone});
  }
}

void WatchedTree::takeUpUncovered() {
  for (const Retry& place : std::exchange(unexcluded_, {})) {
    const NodeId folder = find(place.folder);
    if (folder != kNoNode && !isExcluded(folder, place.name)) takeUp(folder, place.name, place.report, place.attempts);
  }
}

void WatchedTree::displace(NodeId node) {
  if (tree_.key(node).empty()) {
    forget(node, Why::Removed);  // nothing could ever claim it
    return;
  }
  pathsChanged();
  if (status_.losses().any()) status_.losses().forget(reportedPathOf(node));
  tree_.detach(node);
  displaced_.push_back({node, std::string(tree_.key(node)), Clock::now() + kPatience});
}

void WatchedTree::expireDisplaced() {
  const auto now = Clock::now();
  for (std::size_t i = 0; i < displaced_.size();) {
    // While changes keep coming, the one that tells where the folder is may be among those not read yet.
    if (displaced_[i].until > now || !queuesWereEmpty_) {
      ++i;
      continue;
    }
    const Displaced item = displaced_[i];
    const bool waits = tree_.findByKey(item.key) == item.node && tree_.isDetached(item.node);
    const bool isBack = waits && isStillAt(item.node, item.key) && tree_.child(tree_.parent(item.node), tree_.name(item.node)) == kNoNode;
    if (waits && !isBack && !hasReadEverything()) {
      ++i;
      continue;
    }
    displaced_.erase(displaced_.begin() + static_cast<std::ptrdiff_t>(i));
    if (!waits) continue;
    const NodeId parent = tree_.parent(item.node);
    const std::string name(tree_.name(item.node));
    if (isBack) {
      moveNode(item.node, parent, name);
    } else {
      forget(item.node, Why::Left);
    }
  }
}

}  // namespace platform::fsevents
