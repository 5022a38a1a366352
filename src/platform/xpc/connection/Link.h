#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/xpc/channel/Channel.h"
#include "platform/xpc/channel/IOThread.h"
#include "platform/xpc/connection/Connection.h"

// Internal to the channel: what leads from a connection to the other end.
namespace platform::xpc {

/// A message, or something to be done after the messages before it.
struct Outgoing {
  OutgoingFrame frame;
  std::function<void()> barrier;

  void drop() const {
    if (barrier) barrier();
  }
};

/// A connection's link to the other end. It comes from the connection's name (ClientLink) or from a listener (PeerLink).
///
/// | what happens      | Idle                  | Connecting    | Connected           | Greeted                  | Over    |
/// |-------------------|-----------------------|---------------|---------------------|--------------------------|---------|
/// | send: a message   | kept -> Connecting    | kept          | kept and written    | written                  | dropped |
/// | send: a barrier   | called                | kept          | kept                | called after the writing | called  |
/// | too much is kept  | -                     | interrupted   | interrupted         | -                        | -       |
/// | connected: client | -                     | -> Connected  | -                   | -                        | -       |
/// | connected: peer   | says hello -> Greeted | -             | -                   | -                        | -       |
/// | cannot connect    | -                     | -> Over       | -                   | -                        | -       |
/// | received          | -                     | -             | -> Greeted, taken   | taken                    | -       |
/// | ended: client     | -                     | -             | -> Connecting (1)   | interrupted              | -       |
/// | ended: peer       | -                     | -             | -                   | -> Over                  | -       |
/// | invalidate        | -> Over               | -> Over       | -> Over             | -> Over                  | nothing |
///
/// (1) While messages are kept and a few attempts have not been made; else interrupted.
///
/// Interrupted: the handler is told, what is kept is dropped, its barriers are called, -> Idle. Entering Over does the same, with Invalid
/// as the handler's last event. Entering Connected writes the kept messages, entering Greeted forgets them and leaves their barriers to the
/// channel: a service greets before it hands the first message to anybody, so what it did not greet was seen by nobody and can be sent to
/// the next process.
///
/// Owned by the connection's core, which it refers to. Threads: the I/O thread, but for `resumed`.
class Link {
 public:
  enum class State { Idle, Connecting, Connected, Greeted, Over };

  explicit Link(Connection::Core& core) : core_(core) {}
  virtual ~Link();
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  /// The connection was resumed for the first time. Any thread.
  virtual void resumed() {}
  virtual void send(Outgoing outgoing) REQUIRES(kIOThread) = 0;
  /// There is a socket to the other end. A peer's is not read before `startReading`.
  virtual void connected(std::shared_ptr<Channel> channel) REQUIRES(kIOThread) = 0;
  void received(Frame frame) REQUIRES(kIOThread);
  /// `reason` is told after "Connection invalid: ".
  void invalidate(const std::string& reason) REQUIRES(kIOThread);

  void startReading() REQUIRES(kIOThread);
  /// The inbox has room again, or no more.
  void updateReading() REQUIRES(kIOThread);
  /// What writing past this thread came to, into `queue`.
  void added(const std::shared_ptr<SendQueue>& queue, SendQueue::Added added) REQUIRES(kIOThread);
  [[nodiscard]] bool isOver() const REQUIRES(kIOThread) { return state_ == State::Over; }

 protected:
  /// The first frame came while Connected.
  virtual void greeted() REQUIRES(kIOThread) {}
  virtual void ended(const std::string& reason) REQUIRES(kIOThread) = 0;
  virtual void dropKept() REQUIRES(kIOThread) {}

  void attach(std::shared_ptr<Channel> channel, State state) REQUIRES(kIOThread);
  void detach() REQUIRES(kIOThread);
  void write(Outgoing outgoing) REQUIRES(kIOThread);
  [[nodiscard]] bool hasChannel() const REQUIRES(kIOThread) { return state_ == State::Connected || state_ == State::Greeted; }

  Connection::Core& core_;
  State state_ GUARDED_BY(kIOThread) = State::Idle;
  /// While Connected and Greeted.
  std::shared_ptr<Channel> channel_ GUARDED_BY(kIOThread);

 private:
  bool mayRead_ GUARDED_BY(kIOThread) = false;
};

}  // namespace platform::xpc
