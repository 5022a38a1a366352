#include "platform/concurrency/ThreadPool.h"

#include <pthread.h>
#include <signal.h>

#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/concurrency/EventLoop.h"
#include "platform/foundation/log/Log.h"

namespace platform {

namespace {

/// Blocks all signals of the calling thread for as long as it lives; a thread started meanwhile inherits that.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t former_{};
};

}  // namespace

ThreadPool& ThreadPool::shared() {
  static ThreadPool& pool = *new ThreadPool;
  return pool;
}

void ThreadPool::run(Job job) {
  bool parked = false;
  {
    const std::lock_guard lock(mutex_);
    parked = waiting_.size() < parked_;
    if (parked) {
      waiting_.push_back(std::move(job));
    } else {
      ++threads_;
    }
  }
  // Not with the lock held: the thread would wake up only to wait for it.
  if (parked) return available_.notify_one();
  if (startThread(job)) return;
  const std::lock_guard lock(mutex_);
  --threads_;
  waiting_.push_back(std::move(job));
  available_.notify_one();
}

// Leaves `job` to the caller when there is no thread for it.
bool ThreadPool::startThread(Job& job) {
  const auto shared = std::make_shared<Job>(std::move(job));
  try {
    const SignalsBlocked blocked;
    std::thread([this, shared] { work(std::exchange(*shared, nullptr)); }).detach();
    return true;
  } catch (const std::system_error& error) {
    job = std::move(*shared);
    NSLog("no thread for a block, which waits for one: " + std::string(error.what()));
    return false;
  }
}

void ThreadPool::work(Job job) {
  do {
    job();
    job = nullptr;
    EventLoop::abandonCurrent();
  } while (next(job));
}

bool ThreadPool::next(Job& job) {
  std::unique_lock lock(mutex_);
  if (waiting_.empty()) {
    if (parked_ == kParkedAtMost) {
      --threads_;
      return false;
    }
    ++parked_;
    available_.wait(lock, [this] { return !waiting_.empty(); });
    --parked_;
  }
  job = std::move(waiting_.front());
  waiting_.pop_front();
  return true;
}

std::size_t ThreadPool::parked() const {
  const std::lock_guard lock(mutex_);
  return parked_;
}

std::size_t ThreadPool::threads() const {
  const std::lock_guard lock(mutex_);
  return threads_;
}

}  // namespace platform
