#include "platform/xpc/connection/Inbox.h"

#include <utility>

#include "platform/concurrency/loop/UntilRunLoop.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/log/Contained.h"

namespace platform::xpc {

std::shared_ptr<Inbox> Inbox::create(std::string label) { return std::shared_ptr<Inbox>(new Inbox(std::move(label))); }

Inbox::Inbox(std::string label)
    : label_(std::move(label)), failure_("xpc: an exception left the event handler of " + label_), queue_(SerialQueue::create(label_)) {}

void Inbox::setHandler(EventHandler handler) {
  const MutexLock lock(mutex_);
  // Swapped, so that what the former one holds is released without the lock.
  if (state_ != State::Done) handler_.swap(handler);
}

void Inbox::setQueue(std::shared_ptr<SerialQueue> queue) {
  if (!queue) queue = SerialQueue::create(label_);
  const MutexLock lock(mutex_);
  queue_ = std::move(queue);
}

void Inbox::setRoomHandler(std::function<void()> room) {
  const MutexLock lock(mutex_);
  room_ = std::move(room);
}

void Inbox::resume() {
  std::shared_ptr<SerialQueue> due;
  {
    const MutexLock lock(mutex_);
    if (suspensions_ == 0) {
      if (state_ != State::Taking) return;
      throw Exception(NSInternalInconsistencyException, "a connection that is not suspended was resumed");
    }
    --suspensions_;
    due = dueOn();
  }
  post(due);
}

void Inbox::suspend() {
  const MutexLock lock(mutex_);
  ++suspensions_;
}

void Inbox::put(Value message, ReceiveBudget budget) { putItem({.event = std::move(message), .budget = std::move(budget)}); }

void Inbox::putError(ConnectionError error, std::function<void()> told) { putItem({.event = std::move(error), .told = std::move(told)}); }

void Inbox::close(ConnectionError last, std::shared_ptr<void> kept) {
  putItem({.event = std::move(last), .last = true, .kept = std::move(kept)});
}

void Inbox::closeNow() {
  std::deque<Item> dropped;
  EventHandler handler;
  std::function<void()> room;
  {
    const MutexLock lock(mutex_);
    state_ = State::Done;
    dropped.swap(items_);
    handler.swap(handler_);
    room.swap(room_);
    bytes_ = 0;
    descriptors_ = 0;
  }
  for (const Item& item : dropped) {
    if (item.told) item.told();
  }
}

void Inbox::dropMessages() {
  std::deque<Item> dropped;
  const MutexLock lock(mutex_);
  std::deque<Item> errors;
  for (Item& item : items_) (std::holds_alternative<Value>(item.event) ? dropped : errors).push_back(std::move(item));
  items_ = std::move(errors);
  bytes_ = 0;
  descriptors_ = 0;
}

void Inbox::runOnQueue(std::function<void()> block) {
  const MutexLock lock(mutex_);
  queue_->async(std::move(block));
}

bool Inbox::isFull() {
  const MutexLock lock(mutex_);
  awaited_ = full();
  return awaited_;
}

bool Inbox::full() const { return items_.size() >= kMaximumMessages || bytes_ >= kMaximumBytes || descriptors_ >= kMaximumDescriptors; }

bool Inbox::halfEmpty() const {
  return items_.size() <= kMaximumMessages / 2 && bytes_ <= kMaximumBytes / 2 && descriptors_ <= kMaximumDescriptors / 2;
}

void Inbox::putItem(Item item) {
  std::shared_ptr<SerialQueue> due;
  bool taken = false;
  {
    const MutexLock lock(mutex_);
    taken = state_ == State::Taking;
    if (taken) {
      if (item.last) state_ = State::Ending;
      bytes_ += item.budget.bytes();
      descriptors_ += item.budget.descriptors();
      items_.push_back(std::move(item));
      due = dueOn();
    }
  }
  // NOLINTNEXTLINE(bugprone-use-after-move): moved only where it was taken
  if (!taken && item.told) item.told();
  post(due);
}

std::shared_ptr<SerialQueue> Inbox::dueOn() {
  if (posted_ || suspensions_ > 0 || items_.empty()) return nullptr;
  posted_ = true;
  return queue_;
}

void Inbox::post(const std::shared_ptr<SerialQueue>& queue) {
  if (queue) queue->async([self = shared_from_this()] { self->deliver(); });
}

void Inbox::deliver() {
  Item item;
  EventHandler handler;
  std::function<void()> room;
  {
    const MutexLock lock(mutex_);
    if (suspensions_ > 0 || items_.empty()) {
      posted_ = false;
      return;
    }
    item = std::move(items_.front());
    items_.pop_front();
    bytes_ -= item.budget.bytes();
    descriptors_ -= item.budget.descriptors();
    if (awaited_ && halfEmpty()) {
      awaited_ = false;
      room = room_;
    }
    handler = handler_;
    if (item.last) {
      state_ = State::Done;
      handler_ = nullptr;
      room_ = nullptr;
    }
  }
  if (room) room();
  // What the message holds is held, and counts, until the handler has returned or runs this thread's loop for as long as it likes.
  const auto letGo = [&item] {
    item.event = {};
    item.budget = {};
  };
  const bool isSmall = item.budget.descriptors() == 0 && item.budget.bytes() <= ReceiveBudget::kExemptBytes;
  if (handler && isSmall) runContained(failure_, [&] { handler(item.event); });
  if (handler && !isSmall) runContained(failure_, [&] { holdUntilRunLoop([&] { handler(item.event); }, letGo); });
  letGo();
  if (item.told) item.told();
  std::shared_ptr<SerialQueue> due;
  {
    const MutexLock lock(mutex_);
    posted_ = false;
    due = dueOn();
  }
  post(due);
}

}  // namespace platform::xpc
