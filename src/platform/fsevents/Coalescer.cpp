#include "platform/fsevents/Coalescer.h"

#include <functional>
#include <utility>

namespace platform::fsevents {
namespace {

constexpr std::size_t kSmallest = 64;
constexpr FSEventStreamEventFlags kAnyKind =
    kFSEventStreamEventFlagItemIsFile | kFSEventStreamEventFlagItemIsDir | kFSEventStreamEventFlagItemIsSymlink;

std::uint32_t hashOf(std::string_view path) { return static_cast<std::uint32_t>(std::hash<std::string_view>{}(path)); }

}  // namespace

std::size_t Coalescer::slotOf(std::string_view path, std::uint32_t hash) const {
  const std::size_t mask = slots_.size() - 1;
  std::size_t at = hash & mask;
  while (slots_[at].number != 0 && (slots_[at].hash != hash || events_[slots_[at].number - 1].path != path)) at = (at + 1) & mask;
  return at;
}

void Coalescer::grow() {
  const std::vector<Slot> former = std::exchange(slots_, std::vector<Slot>(slots_.empty() ? kSmallest : slots_.size() * 2));
  const std::size_t mask = slots_.size() - 1;
  for (const Slot& slot : former) {
    if (slot.number == 0) continue;
    std::size_t at = slot.hash & mask;
    while (slots_[at].number != 0) at = (at + 1) & mask;
    slots_[at] = slot;
  }
}

std::size_t Coalescer::add(std::uint32_t tree, std::string_view path, FSEventStreamEventFlags flags, bool needsKind) {
  if (slots_.size() < 2 * (events_.size() + 1)) grow();
  const std::uint32_t hash = hashOf(path);
  Slot& slot = slots_[slotOf(path, hash)];
  if (slot.number != 0) {
    merge(slot.number - 1, flags, needsKind);
    return slot.number - 1;
  }
  if (events_.empty()) opened_ = Clock::now();
  events_.push_back({std::string(path), flags, tree, needsKind});
  slot = {hash, static_cast<std::uint32_t>(events_.size())};
  return events_.size() - 1;
}

void Coalescer::merge(std::size_t number, FSEventStreamEventFlags flags, bool needsKind) {
  PendingEvent& event = events_[number];
  event.flags |= flags;
  event.needsKind = needsKind || (event.needsKind && (flags & kAnyKind) == 0);
}

std::vector<PendingEvent> Coalescer::take() {
  ++epoch_;
  // A new table, not a cleared one: the memory of a storm is given back.
  slots_ = {};
  return std::exchange(events_, {});
}

}  // namespace platform::fsevents
