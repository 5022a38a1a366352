#include "platform/fsevents/event/Coalescer.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "platform/fsevents/event/ShownPath.h"

namespace platform::fsevents {
namespace {

/// What no rescan finds out.
constexpr FSEventStreamEventFlags kKept =
    kFSEventStreamEventFlagRootChanged | kFSEventStreamEventFlagMount | kFSEventStreamEventFlagUnmount;
constexpr FSEventStreamEventFlags kGivenUp = kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagUserDropped;
/// What an event takes up besides the bytes of its path, with its places in the index and in the heap.
constexpr std::size_t kEventBytes = sizeof(PendingEvent) + 32;

std::uint32_t hashOf(std::string_view path) { return static_cast<std::uint32_t>(std::hash<std::string_view>{}(path)); }

}  // namespace

Coalescer::Tree& Coalescer::tree(std::uint32_t number) {
  if (number >= trees_.size()) trees_.resize(std::size_t{number} + 1);
  return trees_[number];
}

void Coalescer::setRoot(std::uint32_t number, std::string path, FSEventStreamEventFlags kind) {
  Tree& known = tree(number);
  known.root = std::move(path);
  known.kind = kind;
  known.isKnown = true;
}

std::uint32_t Coalescer::addTree() {
  if (free_.empty()) {
    trees_.emplace_back();
    return static_cast<std::uint32_t>(trees_.size() - 1);
  }
  const std::uint32_t number = free_.back();
  free_.pop_back();
  return number;
}

void Coalescer::removeTree(std::uint32_t number) { tree(number).isRemoved = true; }

std::size_t Coalescer::add(std::uint32_t number, std::string_view path, FSEventStreamEventFlags flags, bool needsKind) {
  if (number < trees_.size() && trees_[number].isGivenUp && (flags & kKept) == 0 && path != trees_[number].root) return kNone;
  const std::uint32_t hash = hashOf(path);
  const std::uint32_t known = byPath_.find(hash, [&](std::uint32_t event) { return events_[event].path == path; });
  if (known != HashIndex::kNone) {
    merge(known, flags, needsKind);
    return known;
  }
  const std::size_t added = insert(hash, number, path, flags, needsKind);
  if (bytes_ <= maximumBytes_) return added;
  const std::uint64_t before = epoch_;
  giveUpLargest();
  if (before == epoch_) return added;
  const std::uint32_t moved = byPath_.find(hash, [&](std::uint32_t event) { return events_[event].path == path; });
  return moved == HashIndex::kNone ? kNone : moved;
}

std::size_t Coalescer::insert(std::uint32_t hash, std::uint32_t number, std::string_view path, FSEventStreamEventFlags flags,
                              bool needsKind) {
  if (events_.empty()) opened_ = Clock::now();
  byPath_.insert(hash, static_cast<std::uint32_t>(events_.size()));
  events_.push_back({std::string(path), flags, number, needsKind});
  tree(number).bytes += kEventBytes + path.size();
  bytes_ += kEventBytes + path.size();
  return events_.size() - 1;
}

void Coalescer::merge(std::size_t number, FSEventStreamEventFlags flags, bool needsKind) {
  if (number == kNone) return;
  PendingEvent& event = events_[number];
  event.flags |= flags;
  event.needsKind = needsKind || (event.needsKind && (flags & kAnyItemKind) == 0);
}

void Coalescer::giveUpLargest() {
  const auto largest = std::max_element(trees_.begin(), trees_.end(), [](const Tree& one, const Tree& other) {
    return std::pair(one.isKnown && !one.isGivenUp, one.bytes) < std::pair(other.isKnown && !other.isGivenUp, other.bytes);
  });
  // Of trees that are given up already only what must be kept is added, and that is as few as there are watched paths and mounts.
  if (largest == trees_.end() || !largest->isKnown || largest->isGivenUp) return;
  giveUp(static_cast<std::uint32_t>(largest - trees_.begin()));
}

void Coalescer::giveUp(std::uint32_t number) {
  Tree& given = tree(number);
  const std::string root = shownPath(given.root);
  const Clock::time_point opened = opened_;
  std::vector<PendingEvent> former = std::exchange(events_, {});
  byPath_.clear();
  ++epoch_;
  bytes_ = 0;
  for (Tree& each : trees_) each.bytes = 0;
  for (PendingEvent& event : former) {
    const bool stays = event.tree != number || (event.flags & kKept) != 0 || event.path == root;
    if (stays) insert(hashOf(event.path), event.tree, event.path, event.flags, event.needsKind);
  }
  given.isGivenUp = true;
  given.root = root;
  add(number, root, kGivenUp | given.kind, false);
  opened_ = opened;
  givenUp_.push_back(root);
}

std::vector<PendingEvent> Coalescer::take() {
  ++epoch_;
  // The memory of a storm is given back.
  byPath_.clear();
  bytes_ = 0;
  for (std::uint32_t number = 0; number < trees_.size(); ++number) {
    Tree& each = trees_[number];
    each.bytes = 0;
    each.isGivenUp = false;
    if (!each.isRemoved) continue;
    each = {};
    free_.push_back(number);
  }
  return std::exchange(events_, {});
}

std::vector<std::string> Coalescer::takeGivenUp() { return std::exchange(givenUp_, {}); }

}  // namespace platform::fsevents
