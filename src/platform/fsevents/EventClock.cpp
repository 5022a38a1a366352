#include "platform/fsevents/EventClock.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace platform::fsevents {
namespace {

constexpr unsigned kSequenceBits = 22;
/// A change is stamped before it is queued; its maker may lose the processor in between.
constexpr std::uint64_t kMarginMilliseconds = 50;

}  // namespace

EventClock& EventClock::shared() {
  static auto& clock = *new EventClock;
  return clock;
}

std::uint64_t EventClock::now() {
  timespec time{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1000 + static_cast<std::uint64_t>(time.tv_nsec) / 1'000'000 - kMarginMilliseconds;
}

EventClock::Member::Member(std::function<void()> refresh) : refresh_(std::move(refresh)), time_(now()) {
  EventClock& clock = shared();
  const std::lock_guard membership(clock.membership_);
  const std::lock_guard lock(clock.mutex_);
  clock.members_.insert(this);
}

EventClock::Member::~Member() {
  EventClock& clock = shared();
  const std::lock_guard membership(clock.membership_);
  const std::lock_guard lock(clock.mutex_);
  clock.members_.erase(this);
}

void EventClock::Member::everythingDelivered(std::uint64_t time) {
  const std::lock_guard lock(shared().mutex_);
  time_ = time;
  waiting_ = false;
}

void EventClock::Member::deliveredUpTo(std::uint64_t time) {
  const std::lock_guard lock(shared().mutex_);
  time_ = time;
  waiting_ = true;
}

std::uint64_t EventClock::oldestLocked() const {
  std::uint64_t oldest = now();
  for (const Member* member : members_) oldest = std::min(oldest, member->time_);
  return oldest;
}

FSEventStreamEventId EventClock::reserve(const Member& member, std::size_t count, std::uint64_t time) {
  const std::lock_guard lock(mutex_);
  // Identifiers grow for all streams of the process together, so none runs ahead of another that still holds older changes.
  for (const Member* other : members_) {
    if (other != &member && other->waiting_) time = std::min(time, other->time_);
  }
  const FSEventStreamEventId first = std::max(last_ + 1, (time << kSequenceBits) + 1);
  last_ = first + count - 1;
  return first;
}

FSEventStreamEventId EventClock::current() {
  const std::lock_guard membership(membership_);
  for (const Member* member : members_) member->refresh_();
  const std::lock_guard lock(mutex_);
  const FSEventStreamEventId oldest = oldestLocked() << kSequenceBits;
  const bool waiting = std::any_of(members_.begin(), members_.end(), [](const Member* member) { return member->waiting_; });
  if (!waiting) last_ = std::max(last_, oldest);
  // What was told once stays true: whatever has come to wait since is later.
  told_ = std::max(told_, waiting ? oldest : last_);
  return told_;
}

}  // namespace platform::fsevents
