#pragma once

#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "platform/concurrency/loop/RunLoopItemHost.h"
#include "platform/foundation/base/Mutex.h"

namespace platform {

/// The inside of every kind of RunLoopItem: its callback, its one loop, and the protocol by which `invalidate` waits for a running
/// callback.
///
/// | state     | event                                | then                                                            |
/// |-----------|--------------------------------------|-----------------------------------------------------------------|
/// | new       | added                                | scheduled: its loop holds a reference                           |
/// | scheduled | called                               | the same, running; a kind that fires once is retired first      |
/// | any       | retired                              | invalid for good: its loop has forgotten it                     |
/// | invalid   | no callback on the stack (any more)  | the callback is destroyed, which counts as running; waiters go on |
///
/// Locks: an item's lock may be held while its loop's is taken, never the other way round (a loop calls items through one function, which
/// excludes its lock), and neither while a callback runs or is destroyed. Threads: any, but where it says otherwise.
class RunLoopItemCore {
 public:
  using Callback = std::function<void(unsigned ready)>;

  explicit RunLoopItemCore(Callback callback);
  virtual ~RunLoopItemCore();
  RunLoopItemCore(const RunLoopItemCore&) = delete;
  RunLoopItemCore& operator=(const RunLoopItemCore&) = delete;

  [[nodiscard]] ItemSerial serial() const { return serial_; }
  /// Puts the item, which is `*self`, on the loop; nothing when it is invalid or already on one.
  void scheduleOn(const std::shared_ptr<RunLoopItemHost>& loop, const std::shared_ptr<RunLoopItemCore>& self) EXCLUDES(mutex_);
  /// Runs the callback unless the item is invalid or its kind has no use for what is `ready`. On the loop's thread.
  void fire(unsigned ready) EXCLUDES(mutex_);
  void retireAndWait() EXCLUDES(mutex_);
  [[nodiscard]] bool valid() const EXCLUDES(mutex_);

 protected:
  /// When the loop has taken the item. May throw; the loop then forgets it.
  virtual void entered(RunLoopItemHost& loop) REQUIRES(mutex_) = 0;
  /// Before the loop forgets the item.
  virtual void leaving(RunLoopItemHost& loop) REQUIRES(mutex_) { static_cast<void>(loop); }
  /// Before the callback: the part of `ready` that is still wanted, 0 for no call.
  virtual unsigned admit(unsigned ready) REQUIRES(mutex_) { return ready; }
  [[nodiscard]] virtual bool firesOnce() const { return false; }

  mutable Mutex mutex_;
  std::weak_ptr<RunLoopItemHost> loop_ GUARDED_BY(mutex_);
  bool valid_ GUARDED_BY(mutex_) = true;

 private:
  std::shared_ptr<RunLoopItemCore> retire() REQUIRES(mutex_);
  void finish() EXCLUDES(mutex_);
  void releaseCallback() REQUIRES(mutex_);

  const ItemSerial serial_;
  /// Called without the lock: while `running_` is above zero, nobody else touches it.
  Callback callback_;
  Condition finished_;
  bool scheduled_ GUARDED_BY(mutex_) = false;
  /// Calls of the callback on the stack (more than one when it runs its loop), or 1 while it is being destroyed.
  int running_ GUARDED_BY(mutex_) = 0;
  std::thread::id runner_ GUARDED_BY(mutex_);
};

/// A public kind of item on this machinery.
template <class Kind>
class RunLoopItemOf : public Kind, public RunLoopItemCore {
 public:
  using RunLoopItemCore::RunLoopItemCore;
  void invalidate() final { retireAndWait(); }
  [[nodiscard]] bool isValid() const final { return valid(); }

 protected:
  /// The callback of a kind that is called for one reason only.
  static Callback withoutReady(std::function<void()> perform) {
    return [perform = std::move(perform)](unsigned) {
      if (perform) perform();
    };
  }
};

}  // namespace platform
