#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/concurrency/SerialQueue.h"
#include "platform/xpc/channel/Channel.h"
#include "platform/xpc/connection/Connection.h"
#include "platform/xpc/connection/Inbox.h"
#include "platform/xpc/launch/ServiceLauncher.h"

// Internal to the channel: what a Connection does.
namespace platform::xpc {

/// The machinery of one connection: an inbox towards the handler, and a channel that is there, being opened or not there. Lives as long as
/// the connection, its socket or a pending event needs it.
///
/// Threads: members below "I/O thread" are used there only; the rest anywhere.
class Connection::Core : public std::enable_shared_from_this<Connection::Core> {
 public:
  /// The client's end of the service `name`, or a peer's without one.
  explicit Core(std::optional<std::string> name);

  [[nodiscard]] static std::shared_ptr<Connection> makeConnection(std::shared_ptr<Core> core);
  ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;
  [[nodiscard]] Inbox& inbox() { return *inbox_; }
  [[nodiscard]] const std::optional<std::string>& name() const { return name_; }
  [[nodiscard]] Credentials credentials() const;

  void resume();
  void send(OutgoingFrame frame);
  void sendBarrier(std::function<void()> block);
  /// `tell`: whether the handler receives Invalid.
  void cancel(bool tell);

  // I/O thread.
  /// Takes over a socket that a peer connected; nothing is read before `startReading`.
  void adopt(std::shared_ptr<Channel> channel);
  void receive(Frame frame);
  void startReading();
  /// Tells the handler TerminationImminent, and calls `told` when it has returned.
  void terminate(const std::string& reason, std::function<void()> told);
  [[nodiscard]] bool isOver() const { return state_ == State::Over; }

 private:
  enum class State { Closed, Opening, Open, Over };
  /// A message, or something to be done after the messages before it.
  struct Outgoing {
    OutgoingFrame frame;
    std::function<void()> barrier;
  };
  void post(Outgoing outgoing);
  void enqueue(Outgoing outgoing);
  void sendDirectly(bool allowed);
  void transmit(const Outgoing& outgoing);
  void open();
  void greeted();
  void opened(Result<FileHandle, LaunchError> result);
  void attach(std::shared_ptr<Channel> channel);
  void ended(const std::string& reason);
  void interrupt(const std::string& reason);
  void fail(const std::string& reason);
  void finish(const std::string& description);
  void updateReading();
  void dropWaiting();
  [[nodiscard]] bool mayTryAgain() const;

  const std::optional<std::string> name_;
  const std::shared_ptr<Inbox> inbox_;

  mutable std::mutex mutex_;
  Credentials credentials_;
  std::weak_ptr<Connection> self_;
  /// A resumed peer's connection, until it is over.
  std::shared_ptr<Connection> kept_;
  bool over_ = false;
  bool resumedOnce_ = false;

  /// Held while a frame is written past the I/O thread.
  std::mutex sendMutex_;
  /// Where `send` may write at once: the channel's, while there is a greeted one.
  std::shared_ptr<SendQueue> direct_;
  /// What went by way of the I/O thread and has not arrived there: nothing may overtake it.
  int posted_ = 0;

  // I/O thread.
  State state_ = State::Closed;
  std::shared_ptr<Channel> channel_;
  bool mayRead_ = false;
  /// What is to be sent when the service is there. A service greets before it hands the first message to anybody, so what it did not greet
  /// was seen by nobody and can be sent to the next process: until then everything stays here.
  std::deque<Outgoing> waiting_;
  std::size_t waitingBytes_ = 0;
  bool greeted_ = false;
  int attempts_ = 0;
};

}  // namespace platform::xpc
