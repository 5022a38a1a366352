#include "platform/concurrency/loop/RunLoopItemCore.h"

#include <atomic>

namespace platform {

namespace {

ItemSerial nextSerial() {
  static std::atomic<ItemSerial> last = 0;
  return ++last;
}

}  // namespace

RunLoopItemCore::RunLoopItemCore(Callback callback) : serial_(nextSerial()), callback_(std::move(callback)) {}

RunLoopItemCore::~RunLoopItemCore() = default;

void RunLoopItemCore::scheduleOn(const std::shared_ptr<RunLoopItemHost>& loop, const std::shared_ptr<RunLoopItemCore>& self) {
  std::shared_ptr<RunLoopItemCore> forgotten;
  const MutexLock lock(mutex_);
  if (!valid_ || scheduled_ || !loop->enroll(self)) return;
  try {
    entered(*loop);
  } catch (...) {
    forgotten = loop->forget(serial_);
    throw;
  }
  loop_ = loop;
  scheduled_ = true;
}

void RunLoopItemCore::fire(unsigned ready) {
  std::shared_ptr<RunLoopItemCore> forgotten;
  {
    const MutexLock lock(mutex_);
    if (!valid_) return;
    ready = admit(ready);
    if (ready == 0) return;
    if (firesOnce()) forgotten = retire();
    ++running_;
    runner_ = std::this_thread::get_id();
  }
  struct Finisher {
    RunLoopItemCore& item;
    ~Finisher() { item.finish(); }
  } const finisher{*this};
  if (callback_) callback_(ready);
}

void RunLoopItemCore::finish() {
  const MutexLock lock(mutex_);
  if (running_ == 1 && !valid_) return releaseCallback();
  if (--running_ == 0) runner_ = {};
}

void RunLoopItemCore::retireAndWait() {
  std::shared_ptr<RunLoopItemCore> forgotten;
  MutexLock lock(mutex_);
  if (valid_) forgotten = retire();
  if (runner_ == std::this_thread::get_id()) return;
  if (running_ == 0) return releaseCallback();
  while (running_ != 0) finished_.wait(lock);
}

bool RunLoopItemCore::valid() const {
  const MutexLock lock(mutex_);
  return valid_;
}

// Returns the loop's reference, which may be the last one: the caller lets go of it after the lock.
std::shared_ptr<RunLoopItemCore> RunLoopItemCore::retire() {
  valid_ = false;
  const auto loop = loop_.lock();
  if (!loop) return nullptr;
  leaving(*loop);
  return loop->forget(serial_);
}

// What the callback captured may itself wait for or invalidate this item when it is destroyed, so that happens without the lock and counts
// as running.
void RunLoopItemCore::releaseCallback() {
  Callback released;
  released.swap(callback_);
  running_ = 1;
  runner_ = std::this_thread::get_id();
  mutex_.unlock();
  released = nullptr;
  mutex_.lock();
  running_ = 0;
  runner_ = {};
  finished_.notifyAll();
}

}  // namespace platform
