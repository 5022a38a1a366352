#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "platform/concurrency/queue/SerialQueue.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/xpc/channel/ReceiveBudget.h"
#include "platform/xpc/connection/Event.h"

// Internal to the channel: events on their way to a connection's handler.
namespace platform::xpc {

/// Holds a connection's events and calls its handler with them, one at a time and in order, on the target queue, while it is not suspended.
/// Bounded by its feeder, which asks `isFull` and is told when that ends.
///
/// | what happens                   | Taking          | Ending            | Done    |
/// |--------------------------------|-----------------|-------------------|---------|
/// | put, putError                  | taken           | dropped           | dropped |
/// | close                          | taken -> Ending | dropped           | dropped |
/// | the last event's turn has come | -               | delivered -> Done | -       |
/// | closeNow                       | -> Done         | -> Done           | nothing |
/// | setHandler                     | set             | set               | nothing |
/// | resume while not suspended     | throws          | nothing           | nothing |
///
/// Threads: any thread may call anything.
class Inbox : public std::enable_shared_from_this<Inbox> {
 public:
  static std::shared_ptr<Inbox> create(std::string label);

  void setHandler(EventHandler handler) EXCLUDES(mutex_);
  void setQueue(std::shared_ptr<SerialQueue> queue) EXCLUDES(mutex_);
  /// Called on the target queue's thread when the inbox that was said to be full is half empty again: a feeder that goes on at the first
  /// free place would be stopped by the next message.
  void setRoomHandler(std::function<void()> room) EXCLUDES(mutex_);
  /// Begins suspended. Throws Exception(NSInternalInconsistencyException) when it is not.
  void resume() EXCLUDES(mutex_);
  void suspend() EXCLUDES(mutex_);

  void put(Value message, ReceiveBudget budget) EXCLUDES(mutex_);
  /// The handler's call is followed by `told`.
  void putError(ConnectionError error, std::function<void()> told = {}) EXCLUDES(mutex_);
  /// `last` is the last event; the handler is released after it, and `kept` with it.
  void close(ConnectionError last, std::shared_ptr<void> kept) EXCLUDES(mutex_);
  /// Drops what waits, `last` included, and the handler: no call begins any more.
  void closeNow() EXCLUDES(mutex_);
  /// Drops the messages that wait.
  void dropMessages() EXCLUDES(mutex_);
  /// Runs on the target queue like an event, also while suspended and after the end.
  void runOnQueue(std::function<void()> block) EXCLUDES(mutex_);
  [[nodiscard]] bool isFull() EXCLUDES(mutex_);

  static constexpr std::size_t kMaximumMessages = 512;
  static constexpr std::size_t kMaximumBytes = std::size_t{4} << 20U;
  static constexpr std::size_t kMaximumDescriptors = 64;

 private:
  struct Item {
    Event event;
    ReceiveBudget budget{};
    /// Called after the handler, or when the event is dropped.
    std::function<void()> told{};
    bool last = false;
    std::shared_ptr<void> kept{};
  };
  enum class State { Taking, Ending, Done };
  explicit Inbox(std::string label);
  void putItem(Item item) EXCLUDES(mutex_);
  /// The queue for the next delivery when one is due, and then it must be posted. One at a time, so that a change of the queue never makes
  /// two handlers run at once.
  [[nodiscard]] std::shared_ptr<SerialQueue> dueOn() REQUIRES(mutex_);
  /// Without the lock: the queue's thread would wake up only to wait for it.
  void post(const std::shared_ptr<SerialQueue>& queue) EXCLUDES(mutex_);
  void deliver() EXCLUDES(mutex_);
  [[nodiscard]] bool full() const REQUIRES(mutex_);
  [[nodiscard]] bool halfEmpty() const REQUIRES(mutex_);

  const std::string label_;
  /// What the log says before the reason of a handler's exception.
  const std::string failure_;
  mutable Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::Taking;
  std::shared_ptr<SerialQueue> queue_ GUARDED_BY(mutex_);
  EventHandler handler_ GUARDED_BY(mutex_);
  std::function<void()> room_ GUARDED_BY(mutex_);
  std::deque<Item> items_ GUARDED_BY(mutex_);
  std::size_t bytes_ GUARDED_BY(mutex_) = 0;
  std::size_t descriptors_ GUARDED_BY(mutex_) = 0;
  int suspensions_ GUARDED_BY(mutex_) = 1;
  bool posted_ GUARDED_BY(mutex_) = false;
  /// The feeder was told that it is full, and waits for room.
  bool awaited_ GUARDED_BY(mutex_) = false;
};

}  // namespace platform::xpc
