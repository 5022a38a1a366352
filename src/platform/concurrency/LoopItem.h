#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace platform {

class EventLoop;

/// What every kind of run-loop item shares: its callback, its one loop, and the protocol by which `invalidate` waits for a running
/// callback.
///
/// Locks: an item's lock may be held while the loop's is taken, never the other way round, and neither while a callback runs or is
/// destroyed.
class LoopItem {
 public:
  using Callback = std::function<void(unsigned ready)>;
  /// Unique in the process, so that a late event of a forgotten item can never be taken for one of a newer item.
  using Serial = std::uint64_t;

  explicit LoopItem(Callback callback);
  virtual ~LoopItem();
  LoopItem(const LoopItem&) = delete;
  LoopItem& operator=(const LoopItem&) = delete;

  [[nodiscard]] Serial serial() const { return serial_; }
  /// Puts the item, which is `*self`, on the loop; nothing when it is invalid or already on one.
  void scheduleOn(const std::shared_ptr<EventLoop>& loop, const std::shared_ptr<LoopItem>& self);
  /// Runs the callback unless the item is invalid or its kind has no use for what is `ready`. On the loop's thread.
  void fire(unsigned ready);
  void retireAndWait();
  [[nodiscard]] bool valid() const;

 protected:
  /// Called with the item's lock held, when the loop has taken the item. May throw; the loop then forgets it.
  virtual void entered(EventLoop& loop) = 0;
  /// Called with the item's lock held, before the loop forgets the item.
  virtual void leaving(EventLoop& loop) { static_cast<void>(loop); }
  /// Called with the item's lock held, before the callback: the part of `ready` that is still wanted, 0 for no call.
  virtual unsigned admit(unsigned ready) { return ready; }
  [[nodiscard]] virtual bool firesOnce() const { return false; }

  mutable std::mutex mutex_;
  std::weak_ptr<EventLoop> loop_;
  bool valid_ = true;

 private:
  std::shared_ptr<LoopItem> retire();
  void finish();
  void releaseCallback(std::unique_lock<std::mutex>& lock);

  const Serial serial_;
  Callback callback_;
  std::condition_variable finished_;
  bool scheduled_ = false;
  /// Calls of the callback on the stack (more than one when it runs its loop), or 1 while it is being destroyed.
  int running_ = 0;
  std::thread::id runner_;
};

}  // namespace platform
