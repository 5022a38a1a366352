#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/concurrency/queue/SerialQueue.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/value/Object.h"
#include "platform/xpc/connection/Connection.h"

namespace kestrine {

/// One end of the local channel with objects for messages: what arrives is converted (XPCParse.h) and handed to the event handler, what is
/// sent is converted back. Not to be confused with platform::XPCConnection, the channel at the level of calls.
///
///     auto connection = XPCConnection::initWithServiceName("Some.Service");
///     connection->setEventHandler([](const platform::Object& message, const std::shared_ptr<XPCConnection>&) { ... });
///     connection->sendMessage(platform::Dictionary{{"question", "how are you"}});
///
/// Everything runs on one serial queue of the connection's own: `sendMessage`, `_sendLog`, `suspend` and `resume` return at once and do
/// their work there, events are handled there one at a time. So a handler that stays away holds up its own connection, and no other.
///
/// The credential readers wait for that queue. CALLED ON IT, THAT IS FROM A HANDLER, THEY DEADLOCK, and they wait for as long as a handler
/// stays away. Read them on another thread.
///
/// Ownership: shared. Nothing here keeps a connection: the handlers are handed it, the channel refers to it weakly. Pending work of the
/// queue does, until it is done. Destroying it cancels the channel's connection, without a further event; the queue and the two handlers
/// that it has then are never released (see platform::NeverReleased), so a handler must not own the connection.
///
/// Threads: any thread may call anything.
class XPCConnection : public std::enable_shared_from_this<XPCConnection> {
 public:
  using EventHandler = std::function<void(const platform::Object& message, const std::shared_ptr<XPCConnection>& connection)>;
  using ErrorHandler = std::function<void(const platform::xpc::ConnectionError& object, const std::string& description,
                                          const std::shared_ptr<XPCConnection>& connection)>;

  /// A connection to the named service, which is started with the first message where it does not run. Resumed; so an error that is there
  /// at once, such as of an unknown name, may come before a handler is set, and is dropped then.
  static std::shared_ptr<XPCConnection> initWithServiceName(const std::string& serviceName);
  /// Takes over a connection that is suspended and has no handler yet, such as a listener's new peer. Resumes it, on the queue. Null gives
  /// null.
  static std::shared_ptr<XPCConnection> initWithConnection(const std::shared_ptr<platform::xpc::Connection>& connection);
  ~XPCConnection();
  XPCConnection(const XPCConnection&) = delete;
  XPCConnection& operator=(const XPCConnection&) = delete;

  /// Where events from now on and everything else happens. Lets go of the former queue. Without one (null) the channel delivers on a queue
  /// of its own, and whatever needs the queue here throws platform::Exception(NSInvalidArgumentException).
  void setDispatchQueue(std::shared_ptr<platform::SerialQueue> dispatchQueue);
  /// Makes this the one that the connection's events go to:
  ///
  /// | event                                        | goes to                                               |
  /// |----------------------------------------------|-------------------------------------------------------|
  /// | interrupted, invalid, termination imminent   | the error handler                                     |
  /// | a message with a value under "XPCDebugLog"   | the log, as "LOG: " and that value, and nowhere else  |
  /// | any other message                            | the event handler, as the object that it converts to  |
  ///
  /// Without the handler in question the event is dropped. A message that cannot be converted at all (see
  /// arrayWithContentsOfXPCObject) is dropped too, which the channel says in the log.
  void receiveConnection(const std::shared_ptr<platform::xpc::Connection>& connection);
  /// Sends a dictionary as it is, and anything else as {"contents": message}; what has no conversion is left out. There is no reply, and
  /// what goes wrong is only logged: nil, which no dictionary holds; more than the channel carries. What is sent to a connection that is
  /// over is dropped. A handle in the message must not be closed before the queue has come to it.
  void sendMessage(const platform::Object& message);
  /// Hands the error and its description to the error handler of `connection`.
  void invokeErrorHandlerWithObject_connection(const platform::xpc::ConnectionError& object,
                                               const std::shared_ptr<XPCConnection>& connection);

  /// The service's name; nullopt for a connection without one, such as a peer's.
  [[nodiscard]] std::optional<std::string> connectionName();
  // Who is at the other end (see platform::xpc::Connection for when it is known): numbers of the type that an unsigned 32-bit number has on
  // the platform, 64 bits and signed. The process number is read as unsigned too.
  [[nodiscard]] platform::Object connectionEUID();
  [[nodiscard]] platform::Object connectionEGID();
  [[nodiscard]] platform::Object connectionProcessID();
  [[nodiscard]] platform::Object connectionAuditSessionID();

  /// Each `suspend` is balanced by a `resume`; one too many is said in the log. A connection must not be let go of while it is suspended.
  void suspend();
  void resume();
  /// Makes the other end write `text` to its log. Throws platform::Exception(NSInvalidArgumentException) for nil.
  void _sendLog(const platform::Object& text);  // NOLINT(readability-identifier-naming): the name that the operation has

  [[nodiscard]] EventHandler eventHandler() const;
  void setEventHandler(EventHandler eventHandler);
  [[nodiscard]] ErrorHandler errorHandler() const;
  void setErrorHandler(ErrorHandler errorHandler);
  [[nodiscard]] std::shared_ptr<platform::SerialQueue> dispatchQueue() const;
  [[nodiscard]] const std::shared_ptr<platform::xpc::Connection>& connection() const { return connection_; }

  /// What is done with each event. The channel's handler calls it, on the queue; whoever has an event of another origin may, too.
  void handleEvent(const platform::xpc::Event& event);

 private:
  explicit XPCConnection(std::shared_ptr<platform::xpc::Connection> connection);
  [[nodiscard]] std::shared_ptr<platform::SerialQueue> queue() const;
  /// Runs `block` with this connection on the queue, and keeps it until then.
  void async(std::function<void(XPCConnection&)> block);
  void handleMessage(platform::Object message);
  [[nodiscard]] platform::Object readNumber(const std::function<std::uint32_t(const platform::xpc::Connection&)>& read);

  const std::shared_ptr<platform::xpc::Connection> connection_;
  mutable platform::Mutex mutex_;
  std::shared_ptr<platform::SerialQueue> dispatchQueue_ GUARDED_BY(mutex_);
  EventHandler eventHandler_ GUARDED_BY(mutex_);
  ErrorHandler errorHandler_ GUARDED_BY(mutex_);
};

}  // namespace kestrine
