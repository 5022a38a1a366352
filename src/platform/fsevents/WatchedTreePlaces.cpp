#include <algorithm>
#include <utility>

#include "platform/fsevents/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// How long the kernel may take to tell what the disk shows already.
constexpr std::chrono::milliseconds kPatience(10);

}  // namespace

// Where the queue and the disk disagree about the place of a folder: what may be believed, and when.

void WatchedTree::sight(std::string_view target, NodeId folder, std::string_view name) {
  if (folder == kNoNode || isExcluded(folder, name)) return;
  sightings_.push_back({std::string(target), std::string(tree_.key(folder)), std::string(name), Clock::now() + kPatience});
}

void WatchedTree::checkPlace(NodeId node, NodeId formerParent, std::string_view formerName, FSEventStreamEventFlags report) {
  const NodeId parent = tree_.parent(node);
  const std::string name(tree_.name(node));
  const FileHandle opened = openFolder(node);
  if (!opened.isOpen()) return;  // moved on: the queue will tell
  KernelKey key;
  std::uint8_t used = 0;
  if (markFolder(opened.fileDescriptor(), true, key, used) != 0 || key.view() == tree_.key(node)) return;
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
  const NodeId folder = tree_.findByKey(sighting.folder);
  if (folder == kNoNode || (node != kNoNode && tree_.isBelowOrSame(folder, node))) return false;
  const FileHandle opened = openFolder(folder, sighting.name);
  KernelKey key;
  std::uint8_t used = 0;
  if (!opened.isOpen() || markFolder(opened.fileDescriptor(), true, key, used) != 0 || key.view() != sighting.target) return false;
  if (node == kNoNode) {
    takeUp(folder, sighting.name, kFSEventStreamEventFlagItemRenamed);
    return true;
  }
  if (const NodeId occupant = tree_.child(folder, sighting.name); occupant != kNoNode && occupant != node) displace(occupant);
  moveNode(node, folder, sighting.name);
  return true;
}

void WatchedTree::expectArrival(std::string_view key, NodeId folder, std::string_view name) {
  arrivals_.insert_or_assign(std::string(key), Sighting{std::string(key), std::string(tree_.key(folder)), std::string(name), {}});
}

bool WatchedTree::arrive(NodeId node) {
  const auto arrival = arrivals_.find(tree_.key(node));
  if (arrival == arrivals_.end()) return false;
  const Sighting place = std::move(arrival->second);
  arrivals_.erase(arrival);
  const NodeId folder = tree_.findByKey(place.folder);
  if (folder == kNoNode || tree_.isBelowOrSame(folder, node)) return false;
  // It may have been outside in between, where its changes could not be followed: it is taken up like any other that moves in.
  forget(node, Why::Left);
  takeUp(folder, place.name, kFSEventStreamEventFlagItemRenamed);
  return true;
}

void WatchedTree::resolveArrivals() {
  for (auto& [key, place] : std::exchange(arrivals_, {})) {
    const NodeId node = tree_.findByKey(key);
    const NodeId folder = tree_.findByKey(place.folder);
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
  const std::string from = status_.hasUnreadable() && !tree_.isDetached(node) ? options_.reportedPath + relativePath(node) : std::string();
  tree_.move(node, newParent, newName);
  if (!from.empty()) status_.moveUnreadable(from, options_.reportedPath + relativePath(node));
}

void WatchedTree::displace(NodeId node) {
  if (tree_.key(node).empty()) {
    forget(node, Why::Removed);  // nothing could ever claim it
    return;
  }
  pathsChanged();
  if (status_.hasUnreadable()) status_.removeUnreadable(options_.reportedPath + relativePath(node));
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
