#include "platform/concurrency/EventLoop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <system_error>

#include "platform/concurrency/LoopClock.h"
#include "platform/foundation/base/Exception.h"

namespace platform {

namespace {

/// The epoll datum of the eventfd; items count from 1.
constexpr LoopItem::Serial kWakeUp = 0;
constexpr std::size_t kEventsPerTurn = 64;

int require(int descriptor, const char* what) {
  if (descriptor < 0) throw std::system_error(errno, std::system_category(), what);
  return descriptor;
}

timespec toTimespec(std::chrono::nanoseconds duration) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
  return {.tv_sec = static_cast<time_t>(seconds.count()), .tv_nsec = static_cast<long>((duration - seconds).count())};
}

/// epoll_pwait2(2), and epoll_wait(2), rounded up, where the kernel (before 5.11) or a sandbox does not have it.
int waitForEvents(int epoll, std::span<epoll_event> room, std::optional<std::chrono::nanoseconds> limit) {
  const int size = static_cast<int>(room.size());
  if (!limit) return epoll_wait(epoll, room.data(), size, -1);
  if (limit->count() <= 0) return epoll_wait(epoll, room.data(), size, 0);
  static std::atomic<bool> fine = true;
  if (fine.load(std::memory_order_relaxed)) {
    const timespec time = toTimespec(*limit);
    const int count = epoll_pwait2(epoll, room.data(), size, &time, nullptr);
    if (count >= 0 || (errno != ENOSYS && errno != EPERM)) return count;
    fine = false;
  }
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(*limit).count();
  return epoll_wait(epoll, room.data(), size, static_cast<int>(std::min<std::int64_t>(milliseconds, 1 << 30)));
}

}  // namespace

/// Keeps the stack of runs, exceptions included.
class EventLoop::FrameScope {
 public:
  explicit FrameScope(EventLoop& loop) : loop_(loop) {
    const std::lock_guard lock(loop_.mutex_);
    frame_.outer = loop_.innermost_;
    loop_.innermost_ = &frame_;
  }
  ~FrameScope() {
    const std::lock_guard lock(loop_.mutex_);
    loop_.innermost_ = frame_.outer;
  }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;
  [[nodiscard]] const Frame& frame() const { return frame_; }

 private:
  EventLoop& loop_;
  Frame frame_;
};

EventLoop::EventLoop()
    : epoll_(require(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")), event_(require(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
  epoll_event event{.events = EPOLLIN, .data = {.u64 = kWakeUp}};
  require(epoll_ctl(epoll_.fileDescriptor(), EPOLL_CTL_ADD, event_.fileDescriptor(), &event), "epoll_ctl");
}

EventLoop::~EventLoop() = default;

void EventLoop::run() { serve(std::nullopt); }

bool EventLoop::runFor(double seconds) { return serve(Clock::now() + loopDuration(seconds)); }

bool EventLoop::serve(std::optional<TimePoint> limit) {
  if (!isCurrent()) throw Exception(NSInternalInconsistencyException, "a run loop was run on another thread than its own");
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
    const std::lock_guard lock(mutex_);
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
    const std::lock_guard lock(mutex_);
    auto until = limit;
    if (!deadlines_.empty()) until = std::min(until.value_or(TimePoint::max()), deadlines_.begin()->first.first);
    if (until) wait = *until - Clock::now();
    // The last item may have gone since the caller looked, and whoever took it woke nobody: this loop was awake.
    const bool nothingToWaitFor = !until && items_.empty();
    if (nothingToWaitFor || !blocks_.empty() || !signals_.empty() || innermost_->stopped) wait = Nanoseconds(0);
    sleeping_ = true;
  }
  const int count = waitForEvents(epoll_.fileDescriptor(), room, wait);
  if (count < 0 && errno != EINTR) throw std::system_error(errno, std::system_category(), "epoll_wait");
  const auto ready = room.first(static_cast<std::size_t>(std::max(count, 0)));
  // The second for a write that came after its flag had been taken for another reason to wake up.
  const bool told = std::any_of(ready.begin(), ready.end(), [](const epoll_event& event) { return event.data.u64 == kWakeUp; });
  const std::lock_guard lock(mutex_);
  sleeping_ = false;
  if (std::exchange(woken_, false) || told) {
    eventfd_t value = 0;
    eventfd_read(event_.fileDescriptor(), &value);
  }
  return ready;
}

bool EventLoop::runNextBlock() {
  Block block;
  {
    const std::lock_guard lock(mutex_);
    if (blocks_.empty()) return false;
    block = std::move(blocks_.front());
    blocks_.pop_front();
  }
  if (block.run) block.run();
  return true;
}

bool EventLoop::fireNextSignal() {
  std::shared_ptr<LoopItem> item;
  {
    const std::lock_guard lock(mutex_);
    if (signals_.empty()) return false;
    item = find(signals_.front());
    signals_.pop_front();
  }
  if (item) item->fire(1);
  return true;
}

bool EventLoop::fireNextTimer(TimePoint now) {
  std::shared_ptr<LoopItem> item;
  {
    const std::lock_guard lock(mutex_);
    if (deadlines_.empty() || deadlines_.begin()->first.first > now) return false;
    auto node = deadlines_.extract(deadlines_.begin());
    auto& [deadline, serial] = node.key();
    item = find(serial);
    if (const auto interval = node.mapped(); interval.count() > 0) {
      deadline += ((now - deadline) / interval + 1) * interval;
      timers_[serial] = deadline;
      deadlines_.insert(std::move(node));
    } else {
      timers_.erase(serial);
    }
  }
  if (item) item->fire(1);
  return true;
}

bool EventLoop::fireDescriptor(const epoll_event& event) {
  if (event.data.u64 == kWakeUp) return true;
  std::shared_ptr<LoopItem> item;
  {
    const std::lock_guard lock(mutex_);
    item = find(event.data.u64);
  }
  if (item) item->fire(event.events);
  return true;
}

void EventLoop::stop() {
  const std::lock_guard lock(mutex_);
  if (innermost_ == nullptr) return;
  innermost_->stopped = true;
  wake();
}

void EventLoop::perform(std::function<void()> block) { enqueue({std::move(block), true}); }

void EventLoop::performKept(std::function<void()> block) { enqueue({std::move(block), false}); }

void EventLoop::enqueue(Block block) {
  {
    const std::lock_guard lock(mutex_);
    if (abandoned_) return;
    blocks_.push_back(std::move(block));
    if (!mustWake()) return;
  }
  // Not with the lock held: the loop's thread would wake up only to wait for it.
  eventfd_write(event_.fileDescriptor(), 1);
}

void EventLoop::discardPerformed() {
  std::deque<Block> discarded;
  const std::lock_guard lock(mutex_);
  const auto kept = std::stable_partition(blocks_.begin(), blocks_.end(), [](const Block& block) { return !block.discardable; });
  std::move(kept, blocks_.end(), std::back_inserter(discarded));
  blocks_.erase(kept, blocks_.end());
}

bool EventLoop::isRunning() const {
  const std::lock_guard lock(mutex_);
  return innermost_ != nullptr;
}

bool EventLoop::isCurrent() const { return existingCurrentLoop() == this; }

void EventLoop::abandon() {
  decltype(blocks_) blocks;
  decltype(items_) items;
  const std::lock_guard lock(mutex_);
  abandoned_ = true;
  blocks.swap(blocks_);
  items.swap(items_);
  signals_.clear();
  deadlines_.clear();
  timers_.clear();
}

void EventLoop::add(const std::shared_ptr<RunLoopItem>& item) {
  const auto loopItem = std::dynamic_pointer_cast<LoopItem>(item);
  if (!loopItem) throw Exception(NSInvalidArgumentException, "what was added to a run loop is none of its items");
  loopItem->scheduleOn(std::static_pointer_cast<EventLoop>(shared_from_this()), loopItem);
}

bool EventLoop::enroll(const std::shared_ptr<LoopItem>& item) {
  const std::lock_guard lock(mutex_);
  if (abandoned_) return false;
  items_.emplace(item->serial(), item);
  return true;
}

std::shared_ptr<LoopItem> EventLoop::forget(LoopItem::Serial serial) {
  const std::lock_guard lock(mutex_);
  if (const auto timer = timers_.find(serial); timer != timers_.end()) {
    deadlines_.erase({timer->second, serial});
    timers_.erase(timer);
  }
  auto node = items_.extract(serial);
  if (items_.empty()) wake();
  return node.empty() ? nullptr : std::move(node.mapped());
}

void EventLoop::queueSignal(LoopItem::Serial serial) {
  const std::lock_guard lock(mutex_);
  if (abandoned_) return;
  signals_.push_back(serial);
  wake();
}

void EventLoop::arm(LoopItem::Serial serial, TimePoint first, Nanoseconds interval) {
  const std::lock_guard lock(mutex_);
  if (abandoned_) return;
  timers_.emplace(serial, first);
  deadlines_.emplace(std::pair(first, serial), interval);
  wake();
}

std::shared_ptr<LoopItem> EventLoop::find(LoopItem::Serial serial) {
  const auto found = items_.find(serial);
  return found == items_.end() ? nullptr : found->second;
}

// A loop that is awake looks at its queues before it sleeps, and one write wakes it for all.
bool EventLoop::mustWake() { return sleeping_ && !std::exchange(woken_, true); }

// A write that fails because the counter is full means that the loop is awake already.
void EventLoop::wake() {
  if (mustWake()) eventfd_write(event_.fileDescriptor(), 1);
}

bool EventLoop::nothingScheduled() const {
  const std::lock_guard lock(mutex_);
  return items_.empty() && blocks_.empty();
}

}  // namespace platform
