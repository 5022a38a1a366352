#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/concurrency/SerialQueue.h"
#include "platform/xpc/channel/Frame.h"
#include "platform/xpc/connection/Connection.h"

// Internal to the channel: events on their way to a connection's handler.
namespace platform::xpc {

/// Holds a connection's events and calls its handler with them, one at a time and in order, on the target queue, while it is not suspended.
/// Bounded by its feeder, which asks `isFull` and is told when that ends. Threads: any.
class Inbox : public std::enable_shared_from_this<Inbox> {
 public:
  static std::shared_ptr<Inbox> create(std::string label);

  void setHandler(Connection::EventHandler handler);
  void setQueue(std::shared_ptr<SerialQueue> queue);
  /// Called on the target queue's thread when the inbox that was said to be full is half empty again: a feeder that goes on at the first
  /// free place would be stopped by the next message.
  void setRoomHandler(std::function<void()> room);
  /// Begins suspended. Throws Exception(NSInternalInconsistencyException) when it is not.
  void resume();
  void suspend();

  void put(Value message, Hold hold);
  /// The handler's call is followed by `told`.
  void putError(ConnectionError error, std::function<void()> told = {});
  /// `last` is the last event; the handler is released after it, and `kept` with it.
  void close(ConnectionError last, std::shared_ptr<void> kept);
  /// Drops what waits, `last` included, and the handler: no call begins any more.
  void closeNow();
  /// Drops the messages that wait.
  void dropMessages();
  /// Runs on the target queue like an event, also while suspended and after the end.
  void runOnQueue(std::function<void()> block);
  [[nodiscard]] bool isFull();

  static constexpr std::size_t kMaximumMessages = 512;
  static constexpr std::size_t kMaximumBytes = std::size_t{4} << 20U;
  static constexpr std::size_t kMaximumDescriptors = 64;

 private:
  struct Item {
    Event event;
    Hold hold{};
    /// Called after the handler, or when the event is dropped.
    std::function<void()> told{};
    bool last = false;
    std::shared_ptr<void> kept{};
  };
  explicit Inbox(std::string label);
  void putItem(Item item);
  [[nodiscard]] std::shared_ptr<SerialQueue> dueOn();
  void post(const std::shared_ptr<SerialQueue>& queue);
  void call(const Connection::EventHandler& handler, const Item& item);
  void deliver();
  [[nodiscard]] bool full() const;
  [[nodiscard]] bool halfEmpty() const;

  const std::string label_;
  mutable std::mutex mutex_;
  std::shared_ptr<SerialQueue> queue_;
  Connection::EventHandler handler_;
  std::function<void()> room_;
  std::deque<Item> items_;
  std::size_t bytes_ = 0;
  std::size_t descriptors_ = 0;
  int suspensions_ = 1;
  bool posted_ = false;
  /// The feeder was told that it is full, and waits for room.
  bool awaited_ = false;
  /// Nothing more is taken.
  bool closed_ = false;
  /// Nothing more is delivered.
  bool done_ = false;
};

}  // namespace platform::xpc
