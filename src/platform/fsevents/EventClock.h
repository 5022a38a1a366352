#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <set>

#include "platform/fsevents/FSEventStreamTypes.h"

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
  /// A stream's part: when it last knew that nothing was waiting for it.
  /// Threads: one thread tells, any thread may make and destroy it; destruction waits for a running `refresh`.
  class Member {
   public:
    /// `refresh` makes the stream look at its queue now and tell; it is called without the clock's lock and must return within a short
    /// time.
    explicit Member(std::function<void()> refresh);
    ~Member();
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;
    /// `time` was read before the look that found the queue empty, and all that was in it then has been delivered.
    void everythingDelivered(std::uint64_t time);
    /// Something waits to be delivered; what came before `time` does not.
    void deliveredUpTo(std::uint64_t time);

   private:
    friend class EventClock;
    std::function<void()> refresh_;
    std::uint64_t time_;
    bool waiting_ = false;
  };

  static EventClock& shared();
  /// The coarse clock in milliseconds, less a margin for changes that are stamped but not yet queued.
  static std::uint64_t now();

  /// Reserves `count` identifiers in a row for `member`, whose queue was known empty at `time`, and returns the first.
  FSEventStreamEventId reserve(const Member& member, std::size_t count, std::uint64_t time);
  /// What every identifier given out later is above, and what no undelivered change is before.
  FSEventStreamEventId current();

 private:
  EventClock() = default;
  [[nodiscard]] std::uint64_t oldestLocked() const;

  /// Held while members are refreshed; taken before `mutex_`.
  std::mutex membership_;
  std::mutex mutex_;
  std::set<Member*> members_;
  FSEventStreamEventId last_ = 0;
  FSEventStreamEventId told_ = 0;
};

}  // namespace platform::fsevents
