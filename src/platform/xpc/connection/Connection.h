#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/concurrency/queue/SerialQueue.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/xpc/connection/Event.h"
#include "platform/xpc/value/Value.h"

namespace platform::xpc {

/// One end of the local channel, on the level of messages.
///
/// A connection made by service name opens its socket with its first message, starting the service where nobody listens, and again with the
/// first message after an interruption. A peer's connection comes from a Listener. Both begin suspended.
///
///     state      events      send                     resume            cancel
///     suspended  held back   queued and sent          one level less    Invalid once resumed, then over
///     running    delivered   queued and sent          misuse: throws    Invalid, then over
///     over       none        dropped                  nothing           nothing
///
/// Ownership: shared. A peer's connection is kept by the channel from the moment when it is first resumed until it is over; a connection by
/// name lives as long as its owner keeps it. Destroying a connection cancels it without a further event. The handler is released after the
/// last event. A handler that refers to its own connection or to the owner should do so weakly.
///
/// Threads: any thread may call anything. Handlers run on the target queue, one event at a time, in the order of arrival.
class Connection {
 public:
  using EventHandler = xpc::EventHandler;

  /// Never fails: an unknown name is told to the handler after `resume`, as Invalid.
  static std::shared_ptr<Connection> create(std::string serviceName);
  /// The accepting end of a connected stream socket. Most callers use a Listener.
  static std::shared_ptr<Connection> createWithSocket(FileHandle socket);

  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Events that come without a handler set are dropped.
  void setEventHandler(EventHandler handler);
  /// Where events from now on are delivered; a queue of the connection's own until then (and for nullptr).
  void setTargetQueue(std::shared_ptr<SerialQueue> queue);

  /// Of a peer's connection: called once when its socket has closed, also while the event handler is busy or suspended, and at once when
  /// that was before. On the channel's own thread, so it must not wait.
  void setGoneHandler(std::function<void()> handler);

  void resume();
  void suspend();
  /// Ends the connection at once; what was not yet written is lost.
  void cancel();
  /// Queues one message and returns. `message` must be a dictionary within the wire format's bounds, else
  /// Exception(NSInvalidArgumentException). More than 32 MiB waiting for a peer that does not read end the connection (at the client's end
  /// with Interrupted).
  void send(const Value& message);
  /// Calls `block` on the target queue when everything sent before has been written to the socket of a process that took the connection, or
  /// when it never will be because the connection was interrupted or is over. For who wants to end right after a message.
  void sendBarrier(std::function<void()> block);

  /// The service's name; nullopt for a peer's connection.
  [[nodiscard]] std::optional<std::string> name() const;

  // Who is at the other end, as the kernel vouches with the other end's first frame. At the service's end always known. At the client's
  // end: the user and group from the moment the socket is open, the process and its audit session from the service's first frame on; 0 (no
  // session: 4294967295) until then.
  [[nodiscard]] uid_t euid() const;
  [[nodiscard]] gid_t egid() const;
  [[nodiscard]] pid_t pid() const;
  [[nodiscard]] std::uint32_t asid() const;

  class Core;

 private:
  friend class Core;
  explicit Connection(std::shared_ptr<Core> core);
  std::shared_ptr<Core> core_;
};

}  // namespace platform::xpc
