#include "platform/xpc/connection/XPCConnection.h"

#include <atomic>
#include <utility>
#include <variant>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/concurrency/queue/SerialQueue.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/log/Contained.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/text/Printable.h"
#include "platform/xpc/connection/Connection.h"
#include "platform/xpc/connection/RunningCall.h"

namespace platform {

namespace {

using xpc::ConnectionError;
using xpc::Value;

constexpr std::string_view kInterfaceKey = "interface";
constexpr std::string_view kSelectorKey = "selector";

/// Opens once.
class Gate {
 public:
  void open() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    isOpen_ = true;
    opened_.notifyAll();
  }
  void wait() EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    while (!isOpen_) opened_.wait(lock);
  }

 private:
  Mutex mutex_;
  Condition opened_;
  bool isOpen_ GUARDED_BY(mutex_) = false;
};

/// A call that arrived, with all that it needs.
struct Call {
  XPCInterface interface;
  std::string selector;
  std::shared_ptr<void> object;
  std::shared_ptr<void> running;

  void run() const {
    runContained("xpc: an exception left the call " + interface.name() + " " + selector,
                 [this] { interface.call(selector, object.get()); });
  }
};

/// Runs the call on a thread of its own; returns when it is inside its run loop or has returned.
void runAndWaitForStart(std::shared_ptr<const Call> call) {
  const auto started = std::make_shared<Gate>();
  runOnPoolThread([call = std::move(call), started]() mutable {
    // Runs as soon as the call runs this thread's loop, if it does.
    RunLoop::current()->perform([started] { started->open(); });
    call->run();
    RunLoop::current()->discardPerformed();
    // The object may go away with its call, before anybody is told that the call returned.
    call = nullptr;
    started->open();
  });
  started->wait();
}

std::string textUnder(const Value& message, std::string_view key) {
  const Value* value = message.find(key);
  return value != nullptr && value->kind() == Value::Kind::String ? value->stringValue() : std::string();
}

}  // namespace

class XPCConnection::Incoming : public std::enable_shared_from_this<XPCConnection::Incoming> {
 public:
  struct Exported {
    std::shared_ptr<void> object;
    std::type_index type{typeid(void)};
  };
  struct Settings {
    XPCInterface exportedInterface;
    Exported exported;
    XPCInterface remoteInterface;
    std::function<void()> interruptionHandler;
    std::function<void()> invalidationHandler;
    std::string lastError;
    bool listens = false;
  };

  template <class T>
  void set(T Settings::*member, T value) {
    // Swapped, so that the former value is released without the lock.
    settings_.with([member, &value](Settings& settings) { std::swap(settings.*member, value); });
  }
  template <class T>
  [[nodiscard]] T get(T Settings::*member) const {
    return settings_.with([member](const Settings& settings) { return settings.*member; });
  }

  /// Handles what comes from `connection` from now on.
  void listenTo(xpc::Connection& connection);

 private:
  void handle(const xpc::Event& event);
  void handleError(const ConnectionError& error);
  void handleMessage(const Value& message);

  Guarded<Settings> settings_;
  /// The peer's process. Set before its first message.
  std::atomic<pid_t> client_{0};
};

// A peer's connection, which the channel keeps, outlives the delegate's reference, so its handler holds this; the channel lets go of the
// handler when the connection is over. A client's connection lives as long as its owner wants.
void XPCConnection::Incoming::listenTo(xpc::Connection& connection) {
  if (settings_.with([](Settings& settings) { return std::exchange(settings.listens, true); })) return;
  client_ = connection.pid();
  const auto kept = connection.name() ? nullptr : shared_from_this();
  connection.setEventHandler([weak = weak_from_this(), kept](const xpc::Event& event) {
    if (const auto self = weak.lock()) self->handle(event);
  });
}

void XPCConnection::Incoming::handle(const xpc::Event& event) {
  if (const auto* error = std::get_if<ConnectionError>(&event)) return handleError(*error);
  handleMessage(std::get<Value>(event));
}

void XPCConnection::Incoming::handleError(const ConnectionError& error) {
  set(&Settings::lastError, error.description);
  if (error.kind == ConnectionError::Kind::Interrupted) {
    if (const auto handler = get(&Settings::interruptionHandler)) handler();
  } else if (error.kind == ConnectionError::Kind::Invalid) {
    const auto handler = get(&Settings::invalidationHandler);
    set(&Settings::interruptionHandler, {});
    set(&Settings::invalidationHandler, {});
    set(&Settings::exported, {});
    if (handler) handler();
  }
}

void XPCConnection::Incoming::handleMessage(const Value& message) {
  const auto ignore = [](const std::string& why) { NSLog("xpc: a message was ignored: " + printable(why)); };
  const std::string interface = textUnder(message, kInterfaceKey);
  auto call = std::make_shared<Call>(Call{get(&Settings::exportedInterface), textUnder(message, kSelectorKey), nullptr, nullptr});
  const Exported exported = get(&Settings::exported);
  if (interface.empty() || call->selector.empty()) return ignore("it names no interface and selector");
  if (!exported.object) return ignore("no object is exported for " + interface + " " + call->selector);
  if (interface != call->interface.name()) return ignore("the interface " + interface + " is not exported");
  if (!call->interface.hasOperation(call->selector)) return ignore("the interface " + interface + " has no operation " + call->selector);
  if (exported.type != call->interface.protocolType())
    return ignore("the exported object is not of the type that the interface " + interface + " was made for");
  call->running = xpc::RunningCall::begin(client_);
  if (!call->running) return ignore("too many calls are running");
  call->object = exported.object;
  runAndWaitForStart(std::move(call));
}

std::shared_ptr<XPCConnection> XPCConnection::connectionWithServiceName(std::string name) {
  return connectionWithPeer(xpc::Connection::create(std::move(name)));
}

std::shared_ptr<XPCConnection> XPCConnection::connectionWithPeer(std::shared_ptr<xpc::Connection> connection) {
  return std::shared_ptr<XPCConnection>(new XPCConnection(std::move(connection)));
}

XPCConnection::XPCConnection(std::shared_ptr<xpc::Connection> connection)
    : incoming_(std::make_shared<Incoming>()), connection_(std::move(connection)) {}
XPCConnection::~XPCConnection() = default;

void XPCConnection::setExportedInterface(XPCInterface interface) {
  incoming_->set(&Incoming::Settings::exportedInterface, std::move(interface));
}
XPCInterface XPCConnection::exportedInterface() const { return incoming_->get(&Incoming::Settings::exportedInterface); }
void XPCConnection::setExportedObject(std::shared_ptr<void> object, std::type_index type) {
  incoming_->set(&Incoming::Settings::exported, Incoming::Exported{std::move(object), type});
}
std::shared_ptr<void> XPCConnection::exportedObject() const { return incoming_->get(&Incoming::Settings::exported).object; }
std::shared_ptr<void> XPCConnection::exportedObject(std::type_index type) const {
  auto exported = incoming_->get(&Incoming::Settings::exported);
  return exported.type == type ? exported.object : nullptr;
}

void XPCConnection::setRemoteObjectInterface(XPCInterface interface) {
  incoming_->set(&Incoming::Settings::remoteInterface, std::move(interface));
}
void XPCConnection::callRemote(const std::string& selector) {
  const XPCInterface remote = incoming_->get(&Incoming::Settings::remoteInterface);
  if (!remote.hasOperation(selector)) {
    throw Exception(NSInvalidArgumentException, "the remote interface " + remote.name() + " has no operation " + selector);
  }
  connection_->send(Value::dictionary(
      {{std::string(kInterfaceKey), Value::string(remote.name())}, {std::string(kSelectorKey), Value::string(selector)}}));
}
void XPCConnection::scheduleSendBarrierBlock(std::function<void()> block) { connection_->sendBarrier(std::move(block)); }
void XPCConnection::setInterruptionHandler(std::function<void()> handler) {
  incoming_->set(&Incoming::Settings::interruptionHandler, std::move(handler));
}
void XPCConnection::setInvalidationHandler(std::function<void()> handler) {
  incoming_->set(&Incoming::Settings::invalidationHandler, std::move(handler));
}
void XPCConnection::setGoneHandler(std::function<void()> handler) { connection_->setGoneHandler(std::move(handler)); }
std::string XPCConnection::lastErrorDescription() const { return incoming_->get(&Incoming::Settings::lastError); }

void XPCConnection::resume() {
  incoming_->listenTo(*connection_);
  connection_->resume();
}
void XPCConnection::suspend() { connection_->suspend(); }
void XPCConnection::invalidate() { connection_->cancel(); }

pid_t XPCConnection::processIdentifier() const { return connection_->pid(); }
uid_t XPCConnection::effectiveUserIdentifier() const { return connection_->euid(); }
gid_t XPCConnection::effectiveGroupIdentifier() const { return connection_->egid(); }
std::uint32_t XPCConnection::auditSessionIdentifier() const { return connection_->asid(); }
std::optional<std::string> XPCConnection::serviceName() const { return connection_->name(); }

}  // namespace platform
