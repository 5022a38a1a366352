#include "platform/concurrency/LoopItem.h"

#include <atomic>
#include <utility>

#include "platform/concurrency/EventLoop.h"

namespace platform {

namespace {

LoopItem::Serial nextSerial() {
  static std::atomic<LoopItem::Serial> last = 0;
  return ++last;
}

}  // namespace

LoopItem::LoopItem(Callback callback) : serial_(nextSerial()), callback_(std::move(callback)) {}

LoopItem::~LoopItem() = default;

void LoopItem::scheduleOn(const std::shared_ptr<EventLoop>& loop, const std::shared_ptr<LoopItem>& self) {
  std::shared_ptr<LoopItem> forgotten;
  const std::lock_guard lock(mutex_);
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

void LoopItem::fire(unsigned ready) {
  std::shared_ptr<LoopItem> forgotten;
  {
    const std::lock_guard lock(mutex_);
    if (!valid_) return;
    ready = admit(ready);
    if (ready == 0) return;
    if (firesOnce()) forgotten = retire();
    ++running_;
    runner_ = std::this_thread::get_id();
  }
  struct Finisher {
    LoopItem& item;
    ~Finisher() { item.finish(); }
  } const finisher{*this};
  if (callback_) callback_(ready);
}

void LoopItem::finish() {
  std::unique_lock lock(mutex_);
  if (running_ == 1 && !valid_) {
    releaseCallback(lock);
    return;
  }
  if (--running_ == 0) runner_ = {};
}

void LoopItem::retireAndWait() {
  std::shared_ptr<LoopItem> forgotten;
  std::unique_lock lock(mutex_);
  if (valid_) forgotten = retire();
  if (runner_ == std::this_thread::get_id()) return;
  if (running_ == 0) {
    releaseCallback(lock);
  } else {
    finished_.wait(lock, [this] { return running_ == 0; });
  }
}

bool LoopItem::valid() const {
  const std::lock_guard lock(mutex_);
  return valid_;
}

// Returns the loop's reference, which may be the last one: the caller lets go of it after the lock.
std::shared_ptr<LoopItem> LoopItem::retire() {
  valid_ = false;
  const auto loop = loop_.lock();
  if (!loop) return nullptr;
  leaving(*loop);
  return loop->forget(serial_);
}

// What the callback captured may itself wait for or invalidate this item when it is destroyed, so that happens without the lock and counts
// as running.
void LoopItem::releaseCallback(std::unique_lock<std::mutex>& lock) {
  Callback released;
  released.swap(callback_);
  running_ = 1;
  runner_ = std::this_thread::get_id();
  lock.unlock();
  released = nullptr;
  lock.lock();
  running_ = 0;
  runner_ = {};
  finished_.notify_all();
}

}  // namespace platform
