#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

namespace platform {

class RunLoopItemCore;

/// An item's number. Unique in the process, so that a late event of a forgotten item can never be taken for one of a newer item. Counted
/// from 1.
using ItemSerial = std::uint64_t;

/// What an item asks of the loop that it is on. Threads: any. All of it is called with the item's lock held and may take the loop's; a loop
/// never calls an item with its own lock held.
class RunLoopItemHost {
 public:
  RunLoopItemHost(const RunLoopItemHost&) = delete;
  RunLoopItemHost& operator=(const RunLoopItemHost&) = delete;

  using TimePoint = std::chrono::steady_clock::time_point;

  /// Takes a reference to the item. False when the loop takes nothing any more.
  virtual bool enroll(const std::shared_ptr<RunLoopItemCore>& item) = 0;
  /// Forgets the item, its signals and its timer, and returns the loop's reference, if it has one: that may be the last one.
  virtual std::shared_ptr<RunLoopItemCore> forget(ItemSerial item) = 0;
  /// Calls the item once, soon.
  virtual void queueSignal(ItemSerial item) = 0;
  /// Calls the item at `first`, and then each `interval` when that is above zero.
  virtual void arm(ItemSerial item, TimePoint first, std::chrono::nanoseconds interval) = 0;
  /// Calls the item with what is ready as long as the descriptor is ready for one of `events`, as for epoll_ctl(2). An error number, or 0.
  virtual int watch(ItemSerial item, int descriptor, unsigned events) = 0;
  /// From now on for these events.
  virtual void rewatch(ItemSerial item, int descriptor, unsigned events) = 0;
  virtual void unwatch(int descriptor) = 0;

 protected:
  RunLoopItemHost() = default;
  ~RunLoopItemHost() = default;
};

}  // namespace platform
