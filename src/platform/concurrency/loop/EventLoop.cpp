#include "platform/concurrency/loop/EventLoop.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <system_error>
#include <utility>

#include "platform/concurrency/loop/ClampedSeconds.h"
#include "platform/concurrency/loop/ThreadLoops.h"
#include "platform/foundation/base/Exception.h"

namespace platform {

namespace {

/// The poller's number of the WakeUp; items count from 1.
constexpr ItemSerial kWakeUp = 0;
constexpr std::size_t kEventsPerTurn = 64;

}  // namespace

/// Keeps the stack of runs, exceptions included.
class EventLoop::FrameScope {
 public:
  explicit FrameScope(EventLoop& loop) : loop_(loop) {
    const MutexLock lock(loop_.mutex_);
    frame_.outer = loop_.innermost_;
    loop_.innermost_ = &frame_;
  }
  ~FrameScope() {
    const MutexLock lock(loop_.mutex_);
    loop_.innermost_ = frame_.outer;
  }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;
  [[nodiscard]] const Frame& frame() const { return frame_; }

 private:
  EventLoop& loop_;
  Frame frame_;
};

EventLoop::EventLoop() {
  const int error = poller_.watch(kWakeUp, wakeUp_.descriptor(), EPOLLIN);
  if (error != 0) throw std::system_error(error, std::system_category(), "epoll_ctl");
}

EventLoop::~EventLoop() = default;

void EventLoop::run() { serve(std::nullopt); }

bool EventLoop::runFor(double seconds) { return serve(Clock::now() + clampedSeconds(seconds)); }

void EventLoop::assertOnThread() const {
  if (!isCurrent()) throw Exception(NSInternalInconsistencyException, "a run loop was run on another thread than its own");
}

bool EventLoop::serve(std::optional<TimePoint> limit) {
  assertOnThread();
  const FrameScope scope(*this);
  while (limit || !nothingScheduled()) {
    turn(scope.frame(), limit);
    if (scope.frame().stopped) return true;
    if (limit && Clock::now() >= *limit) return false;
  }
  return scope.frame().stopped;
}

// An inner run has polled anew, so what this turn still knows of the descriptors is stale: every step stops after one.
template <class Step>
void EventLoop::repeat(const Frame& frame, std::size_t budget, Step step) {
  const auto begun = turns_;
  for (; budget > 0 && turns_ == begun && !frame.stopped; --budget) {
    if (!step()) return;
  }
}

void EventLoop::turn(const Frame& frame, std::optional<TimePoint> limit) {
  std::array<epoll_event, kEventsPerTurn> room;
  const auto ready = sleep(room, limit);
  const auto begun = ++turns_;
  const auto now = Clock::now();
  std::size_t blocks = 0;
  std::size_t signals = 0;
  std::size_t timers = 0;
  {
    const MutexLock lock(mutex_);
    blocks = blocks_.size();
    signals = signals_.size();
    timers = timers_.size();
  }
  repeat(frame, blocks, [this] { return runNextBlock(); });
  if (turns_ == begun) repeat(frame, signals, [this] { return fireNextSignal(); });
  if (turns_ == begun) repeat(frame, timers, [this, now] { return fireNextTimer(now); });
  auto next = ready.begin();
  if (turns_ == begun) repeat(frame, ready.size(), [&] { return fireDescriptor(*next++); });
}

std::span<epoll_event> EventLoop::sleep(std::span<epoll_event> room, std::optional<TimePoint> limit) {
  std::optional<Nanoseconds> wait;
  {
    const MutexLock lock(mutex_);
    wait = timeToSleep(limit);
    wakeUp_.fallAsleep();
  }
  const auto ready = poller_.wait(room, wait);
  wakeUp_.awake(std::any_of(ready.begin(), ready.end(), [](const epoll_event& event) { return event.data.u64 == kWakeUp; }));
  return ready;
}

std::optional<EventLoop::Nanoseconds> EventLoop::timeToSleep(std::optional<TimePoint> limit) const {
  auto until = limit;
  if (const auto timer = timers_.next()) until = std::min(until.value_or(TimePoint::max()), *timer);
  // The last item may have gone since the caller looked, and whoever took it woke nobody: this loop was awake.
  const bool nothingToWaitFor = !until && items_.empty();
  if (nothingToWaitFor || !blocks_.empty() || !signals_.empty() || innermost_->stopped) return Nanoseconds(0);
  if (!until) return std::nullopt;
  return *until - Clock::now();
}

bool EventLoop::runNextBlock() {
  Performed next;
  {
    const MutexLock lock(mutex_);
    if (blocks_.empty()) return false;
    next = std::move(blocks_.front());
    blocks_.pop_front();
  }
  next.block();
  return true;
}

bool EventLoop::fireNextSignal() {
  std::shared_ptr<RunLoopItemCore> item;
  {
    const MutexLock lock(mutex_);
    if (signals_.empty()) return false;
    item = find(signals_.front());
    signals_.pop_front();
  }
  fire(item, 1);
  return true;
}

bool EventLoop::fireNextTimer(TimePoint now) {
  std::shared_ptr<RunLoopItemCore> item;
  {
    const MutexLock lock(mutex_);
    const auto due = timers_.takeDue(now);
    if (!due) return false;
    item = find(*due);
  }
  fire(item, 1);
  return true;
}

bool EventLoop::fireDescriptor(const epoll_event& event) {
  if (event.data.u64 == kWakeUp) return true;
  std::shared_ptr<RunLoopItemCore> item;
  {
    const MutexLock lock(mutex_);
    item = find(event.data.u64);
  }
  fire(item, event.events);
  return true;
}

void EventLoop::fire(const std::shared_ptr<RunLoopItemCore>& item, unsigned ready) {
  if (item) item->fire(ready);
}

void EventLoop::stop() {
  const MutexLock lock(mutex_);
  if (innermost_ == nullptr) return;
  innermost_->stopped = true;
  wake();
}

void EventLoop::perform(Block block) { enqueue({std::move(block), true}); }

void EventLoop::performKept(Block block) { enqueue({std::move(block), false}); }

void EventLoop::enqueue(Performed performed) {
  {
    const MutexLock lock(mutex_);
    if (abandoned_) return;
    blocks_.push_back(std::move(performed));
    if (!wakeUp_.claim()) return;
  }
  // Not with the lock held: the loop's thread would wake up only to wait for it.
  wakeUp_.ring();
}

void EventLoop::discardPerformed() {
  std::deque<Performed> discarded;
  const MutexLock lock(mutex_);
  const auto kept = std::stable_partition(blocks_.begin(), blocks_.end(), [](const Performed& each) { return !each.discardable; });
  std::move(kept, blocks_.end(), std::back_inserter(discarded));
  blocks_.erase(kept, blocks_.end());
}

bool EventLoop::isRunning() const {
  const MutexLock lock(mutex_);
  return innermost_ != nullptr;
}

bool EventLoop::isCurrent() const { return existingEventLoop() == this; }

void EventLoop::abandon() {
  decltype(blocks_) blocks;
  decltype(items_) items;
  const MutexLock lock(mutex_);
  abandoned_ = true;
  blocks.swap(blocks_);
  items.swap(items_);
  signals_.clear();
  timers_.clear();
}

void EventLoop::add(const std::shared_ptr<RunLoopItem>& item) {
  const auto core = std::dynamic_pointer_cast<RunLoopItemCore>(item);
  if (!core) throw Exception(NSInvalidArgumentException, "what was added to a run loop is none of its items");
  core->scheduleOn(std::static_pointer_cast<EventLoop>(shared_from_this()), core);
}

bool EventLoop::enroll(const std::shared_ptr<RunLoopItemCore>& item) {
  const MutexLock lock(mutex_);
  if (abandoned_) return false;
  items_.emplace(item->serial(), item);
  return true;
}

std::shared_ptr<RunLoopItemCore> EventLoop::forget(ItemSerial item) {
  const MutexLock lock(mutex_);
  timers_.cancel(item);
  auto node = items_.extract(item);
  if (items_.empty()) wake();
  return node.empty() ? nullptr : std::move(node.mapped());
}

void EventLoop::queueSignal(ItemSerial item) {
  const MutexLock lock(mutex_);
  if (abandoned_) return;
  signals_.push_back(item);
  wake();
}

void EventLoop::arm(ItemSerial item, TimePoint first, Nanoseconds interval) {
  const MutexLock lock(mutex_);
  if (abandoned_) return;
  timers_.arm(item, first, interval);
  wake();
}

std::shared_ptr<RunLoopItemCore> EventLoop::find(ItemSerial item) const {
  const auto found = items_.find(item);
  return found == items_.end() ? nullptr : found->second;
}

void EventLoop::wake() {
  if (wakeUp_.claim()) wakeUp_.ring();
}

bool EventLoop::nothingScheduled() const {
  const MutexLock lock(mutex_);
  return items_.empty() && blocks_.empty();
}

}  // namespace platform
