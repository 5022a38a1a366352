#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>

#include "platform/concurrency/loop/Poller.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/concurrency/loop/RunLoopItemCore.h"
#include "platform/concurrency/loop/RunLoopItemHost.h"
#include "platform/concurrency/loop/TimerTable.h"
#include "platform/concurrency/loop/WakeUp.h"
#include "platform/foundation/base/Mutex.h"

namespace platform {

/// The run loop: a Poller with a WakeUp, a queue of blocks, a queue of signals, a table of timers, and the runs on its thread's stack.
///
/// A turn sleeps until something is due, then calls each due thing at most once: the blocks and signals that wait when the turn begins, the
/// timers that are due, the descriptors that are ready. Everything that waits sits in a queue and leaves it one call at a time, so a stop,
/// an exception or an inner run in the middle of a turn loses nothing.
class EventLoop final : public RunLoop, public RunLoopItemHost {
 public:
  using Clock = std::chrono::steady_clock;
  using TimePoint = RunLoopItemHost::TimePoint;
  using Nanoseconds = std::chrono::nanoseconds;

  /// Throws std::system_error when the system has no descriptors left.
  EventLoop();
  ~EventLoop() override;

  void run() override EXCLUDES(mutex_);
  bool runFor(double seconds) override EXCLUDES(mutex_);
  void stop() override EXCLUDES(mutex_);
  void add(const std::shared_ptr<RunLoopItem>& item) override EXCLUDES(mutex_);
  void perform(Block block) override EXCLUDES(mutex_);
  void discardPerformed() override EXCLUDES(mutex_);
  [[nodiscard]] bool isRunning() const override EXCLUDES(mutex_);
  [[nodiscard]] bool isCurrent() const override;

  /// `perform` for a block that `discardPerformed` leaves alone.
  void performKept(Block block) EXCLUDES(mutex_);
  /// The loop's thread has ended: lets go of everything, and from now on of everything at once.
  void abandon() EXCLUDES(mutex_);

  bool enroll(const std::shared_ptr<RunLoopItemCore>& item) override EXCLUDES(mutex_);
  std::shared_ptr<RunLoopItemCore> forget(ItemSerial item) override EXCLUDES(mutex_);
  void queueSignal(ItemSerial item) override EXCLUDES(mutex_);
  void arm(ItemSerial item, TimePoint first, Nanoseconds interval) override EXCLUDES(mutex_);
  int watch(ItemSerial item, int descriptor, unsigned events) override { return poller_.watch(item, descriptor, events); }
  void rewatch(ItemSerial item, int descriptor, unsigned events) override { poller_.rewatch(item, descriptor, events); }
  void unwatch(int descriptor) override { poller_.unwatch(descriptor); }

 private:
  /// One `run` on the stack.
  struct Frame {
    Frame* outer = nullptr;
    std::atomic<bool> stopped = false;
  };
  class FrameScope;
  struct Performed {
    Block block;
    bool discardable = true;
  };

  /// Throws Exception(NSInternalInconsistencyException) elsewhere than on the loop's thread.
  void assertOnThread() const ASSERT_CAPABILITY(thread_);
  bool serve(std::optional<TimePoint> limit) EXCLUDES(mutex_);
  void turn(const Frame& frame, std::optional<TimePoint> limit) REQUIRES(thread_) EXCLUDES(mutex_);
  template <class Step>
  void repeat(const Frame& frame, std::size_t budget, Step step) REQUIRES(thread_) EXCLUDES(mutex_);
  std::span<epoll_event> sleep(std::span<epoll_event> room, std::optional<TimePoint> limit) EXCLUDES(mutex_);
  [[nodiscard]] std::optional<Nanoseconds> timeToSleep(std::optional<TimePoint> limit) const REQUIRES(mutex_);
  bool runNextBlock() EXCLUDES(mutex_);
  bool fireNextSignal() EXCLUDES(mutex_);
  bool fireNextTimer(TimePoint now) EXCLUDES(mutex_);
  bool fireDescriptor(const epoll_event& event) EXCLUDES(mutex_);
  /// The one way from a loop to an item, which takes its own lock and calls out.
  void fire(const std::shared_ptr<RunLoopItemCore>& item, unsigned ready) EXCLUDES(mutex_);
  std::shared_ptr<RunLoopItemCore> find(ItemSerial item) const REQUIRES(mutex_);
  void enqueue(Performed performed) EXCLUDES(mutex_);
  void wake() REQUIRES(mutex_);
  [[nodiscard]] bool nothingScheduled() const EXCLUDES(mutex_);

  const Poller poller_;
  WakeUp wakeUp_;

  mutable Mutex mutex_;
  std::unordered_map<ItemSerial, std::shared_ptr<RunLoopItemCore>> items_ GUARDED_BY(mutex_);
  std::deque<Performed> blocks_ GUARDED_BY(mutex_);
  std::deque<ItemSerial> signals_ GUARDED_BY(mutex_);
  TimerTable timers_ GUARDED_BY(mutex_);
  Frame* innermost_ GUARDED_BY(mutex_) = nullptr;
  bool abandoned_ GUARDED_BY(mutex_) = false;

  /// Held by who runs on the loop's thread.
  ThreadRole thread_;
  /// Turns begun.
  std::uint64_t turns_ GUARDED_BY(thread_) = 0;
};

}  // namespace platform
