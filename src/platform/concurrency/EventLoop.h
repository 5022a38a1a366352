#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <unordered_map>
#include <utility>

#include "platform/concurrency/LoopItem.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/foundation/base/FileHandle.h"

namespace platform {

/// The run loop over epoll(7) and one eventfd(2).
///
/// A turn sleeps until something is due, then calls each due thing at most once: the blocks and signals that wait when the turn begins, the
/// timers that are due, the descriptors that are ready. Everything that waits sits in a queue and leaves it one call at a time, so a stop,
/// an exception or an inner run in the middle of a turn loses nothing.
class EventLoop final : public RunLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using TimePoint = Clock::time_point;
  using Nanoseconds = std::chrono::nanoseconds;

  EventLoop();
  ~EventLoop() override;

  void run() override;
  bool runFor(double seconds) override;
  void stop() override;
  void add(const std::shared_ptr<RunLoopItem>& item) override;
  void perform(std::function<void()> block) override;
  void discardPerformed() override;
  [[nodiscard]] bool isRunning() const override;
  [[nodiscard]] bool isCurrent() const override;

  /// `perform` for a block that `discardPerformed` leaves alone.
  void performKept(std::function<void()> block);
  /// The loop's thread has ended: lets go of everything, and from now on of everything at once.
  void abandon();
  /// Abandons the calling thread's loop, if it has one that is not the main one; the next `current()` makes a new one.
  static void abandonCurrent();

  // For items, with the item's lock held.
  bool enroll(const std::shared_ptr<LoopItem>& item);
  std::shared_ptr<LoopItem> forget(LoopItem::Serial serial);
  void queueSignal(LoopItem::Serial serial);
  void arm(LoopItem::Serial serial, TimePoint first, Nanoseconds interval);
  [[nodiscard]] int epollDescriptor() const { return epoll_.fileDescriptor(); }

 private:
  /// One `run` on the stack.
  struct Frame {
    Frame* outer = nullptr;
    std::atomic<bool> stopped = false;
  };
  class FrameScope;
  struct Block {
    std::function<void()> run;
    bool discardable = true;
  };

  bool serve(std::optional<TimePoint> limit);
  void turn(const Frame& frame, std::optional<TimePoint> limit);
  std::span<epoll_event> sleep(std::span<epoll_event> room, std::optional<TimePoint> limit);
  template <class Step>
  void repeat(const Frame& frame, std::size_t budget, Step step);
  bool runNextBlock();
  bool fireNextSignal();
  bool fireNextTimer(TimePoint now);
  bool fireDescriptor(const epoll_event& event);
  std::shared_ptr<LoopItem> find(LoopItem::Serial serial);
  void enqueue(Block block);
  /// With the lock held: whether the caller has to write to the eventfd.
  bool mustWake();
  /// With the lock held.
  void wake();
  [[nodiscard]] bool nothingScheduled() const;

  const FileHandle epoll_;
  const FileHandle event_;

  mutable std::mutex mutex_;
  std::unordered_map<LoopItem::Serial, std::shared_ptr<LoopItem>> items_;
  std::deque<Block> blocks_;
  std::deque<LoopItem::Serial> signals_;
  std::map<std::pair<TimePoint, LoopItem::Serial>, Nanoseconds> deadlines_;
  std::unordered_map<LoopItem::Serial, TimePoint> timers_;
  Frame* innermost_ = nullptr;
  bool sleeping_ = false;
  bool woken_ = false;
  bool abandoned_ = false;

  /// Turns begun; only the loop's own thread looks at it.
  std::uint64_t turns_ = 0;
};

/// The calling thread's loop, or nothing while it has none.
EventLoop* existingCurrentLoop();
/// The main thread's loop as this room sees it.
const std::shared_ptr<EventLoop>& mainEventLoop();

}  // namespace platform
