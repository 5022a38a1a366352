#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace platform {

/// Threads to borrow: as many as there is work at once, of which at most four stay parked, without time-out, when it is done.
///
/// The threads are detached and never end the process; the pool itself is never destroyed, so that they may use it while the process exits.
/// They block all signals, which are the main thread's business. A borrower never finds a run loop that the former one left behind.
///
/// Threads: any thread may call anything.
class ThreadPool {
 public:
  using Job = std::function<void()>;
  static constexpr std::size_t kParkedAtMost = 4;

  static ThreadPool& shared();

  /// Runs `job`, which must not throw, on a thread of its own. When the system gives no thread, the job waits for the next that becomes
  /// free.
  void run(Job job);
  /// Threads that wait for work at this moment.
  [[nodiscard]] std::size_t parked() const;
  /// All threads of the pool at this moment.
  [[nodiscard]] std::size_t threads() const;

 private:
  ThreadPool() = default;
  ~ThreadPool() = default;
  bool startThread(Job& job);
  void work(Job job);
  bool next(Job& job);

  mutable std::mutex mutex_;
  std::condition_variable available_;
  /// Jobs promised to parked threads that have not woken up yet; more than those only while the system gives no thread.
  std::deque<Job> waiting_;
  std::size_t parked_ = 0;
  std::size_t threads_ = 0;
};

}  // namespace platform
