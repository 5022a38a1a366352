#include "platform/fsevents/Coalescer.h"

#include <functional>
#include <utility>

namespace platform::fsevents {
namespace {

std::uint32_t hashOf(std::string_view path) { return static_cast<std::uint32_t>(std::hash<std::string_view>{}(path)); }

}  // namespace

std::size_t Coalescer::add(std::uint32_t tree, std::string_view path, FSEventStreamEventFlags flags, bool needsKind) {
  const std::uint32_t hash = hashOf(path);
  const std::uint32_t known = byPath_.find(hash, [&](std::uint32_t number) { return events_[number].path == path; });
  if (known != HashIndex::kNone) {
    merge(known, flags, needsKind);
    return known;
  }
  if (events_.empty()) opened_ = Clock::now();
  byPath_.insert(hash, static_cast<std::uint32_t>(events_.size()));
  events_.push_back({std::string(path), flags, tree, needsKind});
  return events_.size() - 1;
}

void Coalescer::merge(std::size_t number, FSEventStreamEventFlags flags, bool needsKind) {
  PendingEvent& event = events_[number];
  event.flags |= flags;
  event.needsKind = needsKind || (event.needsKind && (flags & kAnyItemKind) == 0);
}

std::vector<PendingEvent> Coalescer::take() {
  ++epoch_;
  // The memory of a storm is given back.
  byPath_.clear();
  return std::exchange(events_, {});
}

}  // namespace platform::fsevents
