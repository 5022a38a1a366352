#pragma once

#include <cstddef>
#include <deque>

#include "platform/concurrency/loop/Block.h"
#include "platform/foundation/base/Mutex.h"

namespace platform {

/// Threads to borrow: as many as there is work at once, of which at most four stay parked, without time-out, when it is done.
///
/// The threads are detached and never end the process; the pool itself is never destroyed, so that they may use it while the process exits.
/// They block all signals, which are the main thread's business. A borrower never finds a run loop that the former one left behind.
///
/// Threads: any thread may call anything.
class ThreadPool {
 public:
  using Job = Block;
  static constexpr std::size_t kParkedAtMost = 4;

  static ThreadPool& shared();

  /// Runs `job`, which must not throw, beside everything else. When the system gives no thread, the log says so and the job waits for the
  /// next that becomes free.
  void run(Job job) EXCLUDES(mutex_);
  /// Threads that wait for work at this moment.
  [[nodiscard]] std::size_t parked() const EXCLUDES(mutex_);
  /// All threads of the pool at this moment.
  [[nodiscard]] std::size_t threads() const EXCLUDES(mutex_);

 private:
  ThreadPool() = default;
  ~ThreadPool() = default;
  void startThread() EXCLUDES(mutex_);
  void work() EXCLUDES(mutex_);
  bool take(MutexLock& lock, Job& job) REQUIRES(mutex_);

  mutable Mutex mutex_;
  Condition available_;
  /// No more than the parked threads that have not woken up yet and the new ones that have not begun; only while the system gives no
  /// thread there are more.
  std::deque<Job> waiting_ GUARDED_BY(mutex_);
  std::size_t parked_ GUARDED_BY(mutex_) = 0;
  std::size_t beginning_ GUARDED_BY(mutex_) = 0;
  std::size_t threads_ GUARDED_BY(mutex_) = 0;
};

}  // namespace platform
