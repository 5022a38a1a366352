#include <algorithm>
#include <utility>

#include "platform/fsevents/tree/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// Each costs a walk through what was read and not yet applied. Folders that go to and fro more often than this in one reading are looked
/// for when it has been applied; what is told of changes in them until then may bear a path of theirs from another moment.
constexpr int kMostLooksAhead = 64;

}  // namespace

// A folder's last rename may have been merged into an equal one before. Where it is then, is known from what follows.

void WatchedTree::followMerged(const RawChange& rename) {
  if (!source_ || retiring_ || !source_->mergesRenames() || rename.folder.empty() || rename.newFolder.empty()) return;
  using Place = RenameTrail::Place;
  const Place told{std::string(rename.newFolder), std::string(rename.newName)};
  const std::vector<Place> places = trail_.follow(rename.target, {std::string(rename.folder), std::string(rename.name)}, told);
  const NodeId node = places.empty() || looksAhead_ >= kMostLooksAhead ? kNoNode : findOf(rename.target);
  if (node == kNoNode || node == DirectoryTree::kRoot || tree_.isDetached(node)) return;
  ++looksAhead_;
  readQueue();
  std::optional<Place> place = nextDeparture(rename.target);
  if (!place) {
    const auto isHere = [&](const Place& possible) {
      const NodeId folder = tree_.findByKey(possible.folder);
      return folder != kNoNode && isNode(openFolder(folder, possible.name), node);
    };
    const auto found = std::find_if(places.begin(), places.end(), isHere);
    if (found == places.end()) return;
    // It may have come there by a rename that is told by itself.
    readQueue();
    place = nextDeparture(rename.target).value_or(*found);
  }
  if (std::find(places.begin(), places.end(), *place) == places.end()) return;
  const NodeId folder = tree_.findByKey(place->folder);
  if (folder == kNoNode || isBeyondKernel(folder) || isExcluded(folder, place->name) || tree_.isBelowOrSame(folder, node)) return;
  const NodeId occupant = tree_.child(folder, place->name);
  if (occupant == node) return;
  if (occupant != kNoNode) displace(occupant);
  moveNode(node, folder, place->name);
}

std::optional<RenameTrail::Place> WatchedTree::nextDeparture(std::string_view target) const {
  std::optional<RenameTrail::Place> place;
  source_->forEachDepartureAhead([&](const RawChange& departure) {
    if (!place && departure.target == target) place = {std::string(departure.folder), std::string(departure.name)};
  });
  return place;
}

}  // namespace platform::fsevents
