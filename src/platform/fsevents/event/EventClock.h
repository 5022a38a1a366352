#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "platform/foundation/base/Mutex.h"
#include "platform/fsevents/event/FSEventStreamTypes.h"

namespace platform::fsevents {

/// Gives out event identifiers: milliseconds since 1970 by CLOCK_REALTIME_COARSE (which also stamps change times) in the upper 42 bits and
/// a sequence number below, so they are unique and grow within a process, are comparable between processes and restarts, and stay positive
/// as signed numbers.
///
/// The time is not that of the hand-out: it is the oldest of the times at which the streams of this process last knew their kernel queue to
/// be empty. An identifier is therefore never later than a change that is not yet delivered. Applications store identifiers: this format is
/// final.
///
/// Threads: any thread may call anything.
class EventClock {
 public:
  /// An engine's part: when it last knew that nothing was waiting for it.
  /// Threads: one thread tells, any thread may make it, have it leave and destroy it.
  class Member {
   public:
    /// `refresh` makes the engine look at its queue now and tell; it is called without the clock's lock and must return within a short
    /// time.
    explicit Member(std::function<void()> refresh);
    ~Member();
    /// Takes no part any longer, and what it tells from now on counts for nothing: for an engine that is left behind while it hangs.
    /// Waits for a running `refresh`.
    void leave();
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;
    /// `time` was read before the look that found the queue empty, and all that was in it then has been delivered.
    void everythingDelivered(std::uint64_t time);
    /// Something waits to be delivered; what came before `time` does not.
    void deliveredUpTo(std::uint64_t time);

   private:
    friend class EventClock;
    const std::function<void()> refresh_;
    /// Both belong to the clock's mutex.
    std::uint64_t time_;
    bool waiting_ = false;
  };

  static EventClock& shared();
  /// The coarse clock in milliseconds, less a margin for changes that are stamped but not yet queued.
  static std::uint64_t now();

  /// Reserves `count` identifiers in a row for `member`, whose queue was known empty at `time`, and returns the first.
  FSEventStreamEventId reserve(const Member& member, std::size_t count, std::uint64_t time) EXCLUDES(mutex_);
  /// What every identifier given out later is above, and what no undelivered change is before.
  FSEventStreamEventId current() EXCLUDES(membership_, mutex_);
  /// The milliseconds that an identifier was made from.
  static std::uint64_t timeOf(FSEventStreamEventId id);
  /// Why nobody can tell what has changed since the identifier, for people; empty when somebody can.
  static std::string faultOf(FSEventStreamEventId id);

 private:
  EventClock() = default;
  [[nodiscard]] std::uint64_t oldestLocked() const REQUIRES(mutex_);

  /// Held while members are refreshed.
  Mutex membership_ ACQUIRED_BEFORE(mutex_);
  Mutex mutex_;
  /// Nobody joins or leaves without the membership.
  std::set<Member*> members_ GUARDED_BY(mutex_);
  FSEventStreamEventId last_ GUARDED_BY(mutex_) = 0;
  FSEventStreamEventId told_ GUARDED_BY(mutex_) = 0;
};

}  // namespace platform::fsevents
