#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/foundation/base/FileHandle.h"

namespace kestrine::test {

/// One accepted connection, for a script that plays a broken server byte by byte. Calls return early when the server is being destroyed.
class RawConnection {
 public:
  explicit RawConnection(platform::FileHandle socket);

  /// Head and body ("Content-Length") of the next request; what has come when the client closes first.
  std::string readRequest();
  /// Up to and with the blank line.
  std::string readHead();
  /// Reads and drops up to `length` bytes of a body, for one that is too large to gather; how many came.
  std::uint64_t readBody(std::uint64_t length);
  /// False when the client is gone.
  bool send(std::string_view bytes);
  /// Waits until the client closes; reads and drops what it sends.
  void waitForClose();
  /// Closes with a reset (SO_LINGER 0) instead of an orderly end.
  void reset();
  /// Ends sending in an orderly way; the client may go on.
  void endSending();
  [[nodiscard]] int descriptor() const { return socket_.fileDescriptor(); }

 private:
  friend class RawServer;
  bool receiveMore();
  platform::FileHandle socket_;
  std::string gathered_;
};

/// A server on 127.0.0.1 and a free port that runs a script on a thread for each connection, which is closed when the script returns.
/// Destroying the server shuts the sockets, so that scripts which wait end, and joins them.
class RawServer {
 public:
  using Script = std::function<void(RawConnection&)>;

  explicit RawServer(Script script);
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  [[nodiscard]] int port() const { return port_; }
  [[nodiscard]] std::string url(const std::string& path) const;
  /// Connections accepted so far.
  [[nodiscard]] int accepted() const { return accepted_; }

 private:
  struct Served {
    explicit Served(platform::FileHandle socket) : connection(std::move(socket)) {}
    RawConnection connection;
    std::thread thread;
    std::atomic<bool> ended = false;
  };
  void acceptConnections();
  void forgetEnded();

  const Script script_;
  platform::FileHandle listener_;
  int port_ = 0;
  std::atomic<int> accepted_ = 0;
  std::atomic<bool> ending_ = false;
  std::mutex mutex_;
  std::list<Served> served_;
  std::thread acceptor_;
};

/// A port on 127.0.0.1 on which nobody listens: bound without listening for as long as this lives.
class RefusingPort {
 public:
  RefusingPort();
  [[nodiscard]] int port() const { return port_; }
  [[nodiscard]] std::string url(const std::string& path) const;

 private:
  platform::FileHandle socket_;
  int port_ = 0;
};

}  // namespace kestrine::test
