#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "platform/xpc/connection/Connection.h"
#include "xpc/XPCConnection.h"

namespace kestrine {

/// Posted on the default notification centre for each new peer; its object is the peer's std::shared_ptr<XPCConnection>.
inline constexpr const char* kXPCConnectionReceivedNotification = "XPCConnectionReceivedNotification";

/// Runs the service where there is no listener, on the level of messages: each new peer's connection is told through the default
/// notification centre to the main queue, where the runner records it and hands it to its connection handler.
///
/// Ownership: shared, and observing for the life of the process, which therefore keeps every runner. Connections are recorded for ever,
/// gone peers' included: a small object each, without a thread or a descriptor.
///
/// Threads: the main queue; `initWithConnectionHandler` on any thread, and the handler is set before the first peer comes or on the main
/// queue.
class XPCService {
 public:
  using ConnectionHandler = std::function<void(const std::shared_ptr<XPCConnection>& connection)>;
  using Connections = std::vector<std::shared_ptr<XPCConnection>>;

  /// Makes a runner and runs the service.
  [[noreturn]] static void runServiceWithConnectionHandler(ConnectionHandler connectionHandler);
  /// Serves peers until the process ends. On the main thread, after platform::xpc::ServiceProcess::begin.
  [[noreturn]] static void runService();

  /// Begins to observe. The handler may be empty.
  static std::shared_ptr<XPCService> initWithConnectionHandler(ConnectionHandler connectionHandler);
  XPCService(const XPCService&) = delete;
  XPCService& operator=(const XPCService&) = delete;

  /// Records the connection and hands it over.
  void handleConnection(const std::shared_ptr<XPCConnection>& connection);

  [[nodiscard]] const ConnectionHandler& connectionHandler() const { return connectionHandler_; }
  void setConnectionHandler(ConnectionHandler connectionHandler) { connectionHandler_ = std::move(connectionHandler); }
  /// The runner's own list, in the order of arrival; null before the first connection.
  [[nodiscard]] const std::shared_ptr<Connections>& connections() const { return connections_; }

 private:
  explicit XPCService(ConnectionHandler connectionHandler) : connectionHandler_(std::move(connectionHandler)) {}

  ConnectionHandler connectionHandler_;
  std::shared_ptr<Connections> connections_;
};

/// What platform::xpc_main calls for each new peer: wraps and resumes it and posts the notification. It returns after the runners have set
/// the connection up, and only then are the peer's messages read. A connection that no runner keeps is closed.
/// Threads: any but the main queue's busy ones, since it waits for that queue.
void XPCServiceConnectionHandler(const std::shared_ptr<platform::xpc::Connection>& connection);

}  // namespace kestrine
