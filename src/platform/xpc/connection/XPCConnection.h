#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <typeindex>

#include "platform/xpc/connection/XPCInterface.h"

namespace platform {

namespace xpc {
class Connection;
}

/// One end of the local channel, on the level of calls: each end may export one object and call the other's.
///
/// Incoming calls each run on a thread of their own. Calls of one connection start in the order of their messages: the next begins when the
/// previous one has returned or is inside its thread's run loop. A running call holds the object that it runs on, so what a call goes on
/// doing outlives the connection. An exception that leaves a call is logged and ends there; a call to an interface or selector that is not
/// exported is logged and ignored.
///
/// Ownership: shared. A listener's new connection is kept by the channel from its first `resume` until it is invalid; one made by name
/// lives as long as its owner keeps it. Threads: any thread may call anything. The handlers run on the connection's own queue and are
/// released after the connection has become invalid.
class XPCConnection {
 public:
  /// Opens nothing yet: the first call starts the service where it does not run.
  static std::shared_ptr<XPCConnection> connectionWithServiceName(std::string name);
  /// Wraps a peer's connection; XPCListener does that.
  static std::shared_ptr<XPCConnection> connectionWithPeer(std::shared_ptr<xpc::Connection> connection);

  ~XPCConnection();
  XPCConnection(const XPCConnection&) = delete;
  XPCConnection& operator=(const XPCConnection&) = delete;

  void setExportedInterface(XPCInterface interface);
  [[nodiscard]] XPCInterface exportedInterface() const;
  /// `Protocol` is named by the caller and is the one that the exported interface was made for:
  /// `connection->setExportedObject<GreeterProtocol>(std::make_shared<Greeter>())`.
  template <class Protocol>
  void setExportedObject(std::shared_ptr<std::type_identity_t<Protocol>> object) {
    setExportedObject(std::shared_ptr<void>(std::move(object)), typeid(Protocol));
  }
  /// The exported object, null when there is none.
  [[nodiscard]] std::shared_ptr<void> exportedObject() const;
  /// The same as what it was set as; null when it was set as something else.
  template <class Protocol>
  [[nodiscard]] std::shared_ptr<Protocol> exportedObjectAs() const {
    return std::static_pointer_cast<Protocol>(exportedObject(typeid(Protocol)));
  }

  void setRemoteObjectInterface(XPCInterface interface);
  /// Calls `selector` of the remote object, one way: returns at once, and the service is started when it does not run. Throws
  /// Exception(NSInvalidArgumentException) when the remote interface has no such operation.
  void callRemote(const std::string& selector);

  /// Calls `block` on the connection's queue when every call made before has been handed to a running service, or never will be (see
  /// `lastErrorDescription`). For who wants to end right after a call.
  void scheduleSendBarrierBlock(std::function<void()> block);

  /// Called each time the service ended; the next call starts it again. Client's end only.
  void setInterruptionHandler(std::function<void()> handler);
  /// Called once: the connection is over.
  void setInvalidationHandler(std::function<void()> handler);
  /// See xpc::Connection: the other end has gone, whatever is running here on its behalf.
  void setGoneHandler(std::function<void()> handler);
  /// The text of the last error that the channel told (what happened and what can be done about it); empty when there was none. Set before
  /// the handlers are called.
  [[nodiscard]] std::string lastErrorDescription() const;

  /// A new connection is suspended.
  void resume();
  void suspend();
  void invalidate();

  // Who is at the other end; see xpc::Connection for when each is known.
  [[nodiscard]] pid_t processIdentifier() const;
  [[nodiscard]] uid_t effectiveUserIdentifier() const;
  [[nodiscard]] gid_t effectiveGroupIdentifier() const;
  [[nodiscard]] std::uint32_t auditSessionIdentifier() const;
  /// Nullopt for a peer's connection.
  [[nodiscard]] std::optional<std::string> serviceName() const;

 private:
  /// What the other end calls and tells. The connection's handler holds a peer's; it holds no connection.
  class Incoming;
  explicit XPCConnection(std::shared_ptr<xpc::Connection> connection);
  void setExportedObject(std::shared_ptr<void> object, std::type_index type);
  [[nodiscard]] std::shared_ptr<void> exportedObject(std::type_index type) const;

  const std::shared_ptr<Incoming> incoming_;
  const std::shared_ptr<xpc::Connection> connection_;
};

}  // namespace platform
