#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/foundation/base/FileHandle.h"
#include "platform/xpc/connection/Connection.h"

namespace platform::xpc {

/// What one listener takes.
struct ListenerLimits {
  /// Sockets that are served at once.
  std::size_t connections = 1024;
  /// Further ones that wait for one of those to close; until then they are told the status and nothing else.
  std::size_t waiting = 64;
  /// The time in which a client must begin its first frame, and finish each that it has begun; else its connection is closed.
  double stallSeconds = 30;
};

/// Accepts peers on a listening stream socket.
///
/// A client that only asks for the status is answered and never seen. Any other becomes a peer with its first frame: the connection
/// function is called, one peer at a time, on a queue of the listener's own, with a suspended connection, and the peer's frames are read
/// only after that function has returned. It sets the handler and resumes the connection; a connection that it neither keeps nor resumes is
/// closed.
///
/// When its limit of connections is reached, a process that has fewer than another one goes before: the other's newest connection is
/// closed. Else the new one waits for a place; where too many wait already, the newest of the process that has most of them is closed. So
/// nobody locks others out. When the process has no descriptor left it accepts no more until a socket closes, and says so in the log.
///
/// Ownership: shared; destroying it stops accepting and leaves existing peers alone.
/// Threads: any thread may call anything.
class Listener {
 public:
  using ConnectionFunction = std::function<void(const std::shared_ptr<Connection>&)>;

  /// `socket` listens already.
  static std::shared_ptr<Listener> create(FileHandle socket, ConnectionFunction function, ListenerLimits limits = {});
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// Begins to accept. Once.
  void resume();
  /// Stops accepting and closes the socket before it returns.
  void cancel();
  /// Stops accepting and tells every peer's handler TerminationImminent; `done` is called, on any thread, when all of them have returned.
  void terminate(const std::string& reason, std::function<void()> done);

  struct Statistics {
    std::size_t openSockets = 0;
    std::size_t peers = 0;
    std::uint64_t accepted = 0;
  };
  [[nodiscard]] Statistics statistics() const;

  class Core;

 private:
  explicit Listener(std::shared_ptr<Core> core);
  std::shared_ptr<Core> core_;
};

}  // namespace platform::xpc
