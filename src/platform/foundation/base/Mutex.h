#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "platform/foundation/base/ThreadSafety.h"

namespace platform {

/// A mutex that clang's analysis can follow: what it guards says so (GUARDED_BY), what needs it held says so (REQUIRES), and the build with
/// clang refuses the rest. Not recursive. Threads: any.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

/// Holds a Mutex from its making to its end. May be let go of and taken again in between. Used by one thread.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~MutexLock() RELEASE() = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void lock() ACQUIRE() { lock_.lock(); }
  void unlock() RELEASE() { lock_.unlock(); }

 private:
  friend class Condition;
  std::unique_lock<std::mutex> lock_;
};

/// What threads wait on for something that a Mutex guards. A wait may end for no reason, and takes no predicate, since the analysis does
/// not look into one: while (!ready_) condition_.wait(lock). Threads: any.
class Condition {
 public:
  void wait(MutexLock& lock) { condition_.wait(lock.lock_); }
  /// False when the time has come, and what was waited for has perhaps not.
  template <class Clock, class Duration>
  bool waitUntil(MutexLock& lock, const std::chrono::time_point<Clock, Duration>& time) {
    return condition_.wait_until(lock.lock_, time) == std::cv_status::no_timeout;
  }
  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

/// A value that is reached with its mutex held and not otherwise. Threads: any.
template <class Value>
class Guarded {
 public:
  Guarded() = default;
  explicit Guarded(Value value) : value_(std::move(value)) {}

  /// Calls `use(value)` with the mutex held, and returns what it returns (a copy: no reference may leave).
  template <class Use>
  auto with(Use use) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return use(value_);
  }
  template <class Use>
  auto with(Use use) const EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return use(std::as_const(value_));
  }

 private:
  mutable Mutex mutex_;
  Value value_ GUARDED_BY(mutex_);
};

/// The right to touch what belongs to one thread. It locks nothing: who runs on that thread asserts it (a function marked
/// ASSERT_CAPABILITY), and what it owns is GUARDED_BY it.
class CAPABILITY("role") ThreadRole {
 public:
  ThreadRole() = default;
  ThreadRole(const ThreadRole&) = delete;
  ThreadRole& operator=(const ThreadRole&) = delete;
};

}  // namespace platform
