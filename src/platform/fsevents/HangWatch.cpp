#include "platform/fsevents/HangWatch.h"

#include <pthread.h>

#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

#include "platform/foundation/base/AllSignalsBlocked.h"
#include "platform/foundation/log/Log.h"

namespace platform::fsevents {

void HangWatch::add(const std::shared_ptr<Watched>& watched) {
  const MutexLock lock(mutex_);
  watched_.push_back(watched);
  if (thread_.joinable() || stop_) return;
  const AllSignalsBlocked blocked;
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error& error) {
    // Nothing is watched until the next is added; the engines do their work all the same.
    NSLog(std::string("FSEventStream: no thread to notice a file system that hangs: ") + error.what());
  }
}

void HangWatch::remove(const std::shared_ptr<Watched>& watched) {
  const MutexLock lock(mutex_);
  std::erase(watched_, watched);
}

void HangWatch::stop() {
  std::thread ended;
  {
    const MutexLock lock(mutex_);
    stop_ = true;
    ended.swap(thread_);
    changed_.notifyAll();
  }
  if (ended.joinable()) ended.join();
}

void HangWatch::enter(Watched& watched, const std::string& path) {
  const MutexLock lock(mutex_);
  if (watched.depth_++ > 0) return;
  watched.path_ = path;
  watched.steps_ = watched.pulse_->steps;
  watched.since_ = Clock::now();
  if (std::exchange(isAsleep_, false)) changed_.notifyAll();
}

void HangWatch::leave(Watched& watched) {
  std::string path;
  {
    const MutexLock lock(mutex_);
    if (--watched.depth_ > 0 || !std::exchange(watched.isHanging_, false)) return;
    path = watched.path_;
  }
  watched.answers_(path);
}

HangWatch::Clock::time_point HangWatch::look() {
  Clock::time_point next = Clock::time_point::max();
  const auto now = Clock::now();
  for (const auto& watched : watched_) {
    if (watched->depth_ == 0 || watched->isHanging_) continue;
    if (const std::uint64_t steps = watched->pulse_->steps; steps != watched->steps_) {
      watched->steps_ = steps;
      watched->since_ = now;
    }
    // This thread was held up too: the process was halted, or the machine has no time for it.
    if (now - watched->since_ >= 2 * patience_) watched->since_ = now;
    if (now - watched->since_ >= patience_) {
      watched->isHanging_ = true;
      watched->hangs_(watched->path_);
    } else {
      next = std::min(next, watched->since_ + patience_);
    }
  }
  return next;
}

void HangWatch::run() {
  ::pthread_setname_np(::pthread_self(), "fsevents-hang");
  MutexLock lock(mutex_);
  while (!stop_) {
    const Clock::time_point next = look();
    isAsleep_ = next == Clock::time_point::max();
    if (isAsleep_) {
      changed_.wait(lock);
    } else {
      changed_.waitUntil(lock, next);
    }
  }
}

}  // namespace platform::fsevents
