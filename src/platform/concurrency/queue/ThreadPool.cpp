#include "platform/concurrency/queue/ThreadPool.h"

#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/concurrency/loop/ThreadLoops.h"
#include "platform/concurrency/queue/SerialQueue.h"
#include "platform/concurrency/thread/ThreadName.h"
#include "platform/foundation/base/AllSignalsBlocked.h"
#include "platform/foundation/log/Contained.h"
#include "platform/foundation/log/Log.h"

namespace platform {

ThreadPool& ThreadPool::shared() {
  static ThreadPool& pool = *new ThreadPool;
  return pool;
}

void ThreadPool::run(Job job) {
  bool isPromised = false;
  {
    const MutexLock lock(mutex_);
    isPromised = waiting_.size() < parked_ + beginning_;
    waiting_.push_back(std::move(job));
    if (!isPromised) ++beginning_, ++threads_;
  }
  // Not with the lock held: the thread would wake up only to wait for it.
  if (isPromised) return available_.notifyOne();
  startThread();
}

void ThreadPool::startThread() {
  try {
    const AllSignalsBlocked blocked;
    std::thread([this] { work(); }).detach();
  } catch (const std::system_error& error) {
    NSLog("no thread for a block, which waits for one: " + std::string(error.what()));
    const MutexLock lock(mutex_);
    --beginning_;
    --threads_;
  }
}

void ThreadPool::work() {
  Job job;
  MutexLock lock(mutex_);
  --beginning_;
  while (take(lock, job)) {
    lock.unlock();
    job();
    job = nullptr;
    abandonCurrentLoop();
    lock.lock();
  }
  --threads_;
}

// False when the thread is not needed any more.
bool ThreadPool::take(MutexLock& lock, Job& job) {
  if (waiting_.empty()) {
    if (parked_ == kParkedAtMost) return false;
    ++parked_;
    while (waiting_.empty()) available_.wait(lock);
    --parked_;
  }
  job = std::move(waiting_.front());
  waiting_.pop_front();
  return true;
}

std::size_t ThreadPool::parked() const {
  const MutexLock lock(mutex_);
  return parked_;
}

std::size_t ThreadPool::threads() const {
  const MutexLock lock(mutex_);
  return threads_;
}

void runOnPoolThread(Block block) {
  ThreadPool::shared().run([block = std::move(block)]() mutable {
    nameThisThread("pool");
    runContained("an exception left a block", [&block] { block(); });
  });
}

}  // namespace platform
