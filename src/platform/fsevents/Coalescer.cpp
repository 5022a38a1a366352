#include "platform/fsevents/Coalescer.h"

#include <utility>

namespace platform::fsevents {

std::size_t Coalescer::add(std::uint32_t tree, std::string_view path, FSEventStreamEventFlags flags, bool needsKind) {
  if (const auto known = numbers_.find(path); known != numbers_.end()) {
    merge(known->second, flags, needsKind);
    return known->second;
  }
  if (events_.empty()) opened_ = Clock::now();
  const std::size_t number = events_.size();
  events_.push_back({std::string(path), flags, tree, needsKind});
  numbers_.emplace(std::string(path), number);
  return number;
}

void Coalescer::merge(std::size_t number, FSEventStreamEventFlags flags, bool needsKind) {
  events_[number].flags |= flags;
  events_[number].needsKind |= needsKind;
}

std::vector<PendingEvent> Coalescer::take() {
  ++epoch_;
  // A new map, not a cleared one: the buckets of a storm are given back.
  numbers_ = {};
  return std::exchange(events_, {});
}

}  // namespace platform::fsevents
