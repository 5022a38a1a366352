#include "platform/fsevents/event/EventClock.h"

#include <algorithm>
#include <ctime>
#include <utility>
#include <vector>

namespace platform::fsevents {
namespace {

constexpr unsigned kSequenceBits = 22;
/// A change is stamped before it is queued; its maker may lose the processor in between.
constexpr std::uint64_t kMarginMilliseconds = 50;
/// No identifier was made before 2020.
constexpr std::uint64_t kFirstTime = 1'577'836'800'000;
/// By how much the clock may be behind an identifier: less than what whoever reads one takes off it.
constexpr std::uint64_t kTolerance = 10'000;

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

std::uint64_t EventClock::timeOf(FSEventStreamEventId id) { return id >> kSequenceBits; }

std::string EventClock::faultOf(FSEventStreamEventId id) {
  if (timeOf(id) < kFirstTime) return "the identifier to begin from was never given out";
  if (timeOf(id) > now() + kTolerance) return "the clock is behind the identifier to begin from: it was set back since";
  return {};
}

EventClock::Member::Member(std::function<void()> refresh) : refresh_(std::move(refresh)), time_(now()) {
  EventClock& clock = shared();
  const MutexLock membership(clock.membership_);
  const MutexLock lock(clock.mutex_);
  clock.members_.insert(this);
}

EventClock::Member::~Member() { leave(); }

void EventClock::Member::leave() {
  EventClock& clock = shared();
  const MutexLock membership(clock.membership_);
  const MutexLock lock(clock.mutex_);
  clock.members_.erase(this);
}

void EventClock::Member::everythingDelivered(std::uint64_t time) {
  const MutexLock lock(shared().mutex_);
  time_ = time;
  waiting_ = false;
}

void EventClock::Member::deliveredUpTo(std::uint64_t time) {
  const MutexLock lock(shared().mutex_);
  time_ = time;
  waiting_ = true;
}

std::uint64_t EventClock::oldestLocked() const {
  std::uint64_t oldest = now();
  for (const Member* member : members_) oldest = std::min(oldest, member->time_);
  return oldest;
}

FSEventStreamEventId EventClock::reserve(const Member& member, std::size_t count, std::uint64_t time) {
  const MutexLock lock(mutex_);
  // Identifiers grow for all streams of the process together, so none runs ahead of another that still holds older changes.
  for (const Member* other : members_) {
    if (other != &member && other->waiting_) time = std::min(time, other->time_);
  }
  const FSEventStreamEventId first = std::max(last_ + 1, (time << kSequenceBits) + 1);
  last_ = first + count - 1;
  return first;
}

FSEventStreamEventId EventClock::current() {
  const MutexLock membership(membership_);
  std::vector<const Member*> asked;
  {
    const MutexLock lock(mutex_);
    asked.assign(members_.begin(), members_.end());
  }
  // None of them leaves meanwhile: that takes the membership.
  for (const Member* member : asked) member->refresh_();
  const MutexLock lock(mutex_);
  const FSEventStreamEventId oldest = oldestLocked() << kSequenceBits;
  bool waiting = false;
  for (const Member* member : members_) waiting = waiting || member->waiting_;
  if (!waiting) last_ = std::max(last_, oldest);
  // What was told once stays true: whatever has come to wait since is later.
  told_ = std::max(told_, waiting ? oldest : last_);
  return told_;
}

}  // namespace platform::fsevents
