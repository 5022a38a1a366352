#include "platform/xpc/connection/XPCConnection.h"

#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <utility>
#include <variant>

#include "platform/concurrency/RunLoop.h"
#include "platform/concurrency/SerialQueue.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/log/Log.h"
#include "platform/xpc/connection/Connection.h"

namespace platform {

namespace {

using xpc::ConnectionError;
using xpc::Value;

constexpr std::string_view kInterfaceKey = "interface";
constexpr std::string_view kSelectorKey = "selector";

/// Calls that may be running at once in the process. Each takes a thread, and one that watches something never returns, so peers could
/// otherwise use up the process's threads.
class RunningCall {
 public:
  static constexpr int kMaximum = 512;
  /// Nothing when there are too many. The call has ended when the last reference is gone.
  static std::shared_ptr<void> begin() {
    static std::atomic<int> running{0};
    if (running.fetch_add(1) >= kMaximum) {
      --running;
      return nullptr;
    }
    return {&running, [](void* counter) { --*static_cast<std::atomic<int>*>(counter); }};
  }
};

/// Opens once.
class Gate {
 public:
  void open() {
    const std::lock_guard lock(mutex_);
    isOpen_ = true;
    opened_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    opened_.wait(lock, [this] { return isOpen_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool isOpen_ = false;
};

/// A call that arrived, with all that it needs.
struct Call {
  XPCInterface interface;
  std::string selector;
  std::shared_ptr<void> object;
  std::shared_ptr<void> running;

  void run() const {
    const auto say = [this](const std::string& what) {
      NSLog("xpc: an exception left the call " + interface.name() + " " + selector + ": " + what);
    };
    try {
      interface.call(selector, object.get());
    } catch (const Exception& exception) {
      say(exception.name() + ": " + exception.reason());
    } catch (const std::exception& exception) {
      say(exception.what());
    } catch (...) {
      say("of an unknown type");
    }
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

class XPCConnection::Impl : public std::enable_shared_from_this<XPCConnection::Impl> {
 public:
  explicit Impl(std::shared_ptr<xpc::Connection> connection) : connection_(std::move(connection)) {}

  [[nodiscard]] xpc::Connection& connection() const { return *connection_; }

  template <class T>
  void set(T Impl::*member, T value) {
    const std::lock_guard lock(mutex_);
    // Swapped, so that the former value is released without the lock.
    std::swap(this->*member, value);
  }
  template <class T>
  [[nodiscard]] T get(T Impl::*member) const {
    const std::lock_guard lock(mutex_);
    return this->*member;
  }

  void resume();
  void callRemote(const std::string& selector);

  struct Exported {
    std::shared_ptr<void> object;
    std::type_index type{typeid(void)};
  };
  XPCInterface exportedInterface_;
  Exported exported_;
  XPCInterface remoteInterface_;
  std::function<void()> interruptionHandler_;
  std::function<void()> invalidationHandler_;
  std::string lastError_;

 private:
  void handle(const xpc::Event& event);
  void handleError(const ConnectionError& error);
  void handleMessage(const Value& message);

  const std::shared_ptr<xpc::Connection> connection_;
  mutable std::mutex mutex_;
  bool listens_ = false;
};

// A peer's connection must outlive the delegate's reference, so its handler holds it; the channel lets go of the handler when the
// connection is over. A client's connection lives as long as its owner wants.
void XPCConnection::Impl::resume() {
  bool first = false;
  {
    const std::lock_guard lock(mutex_);
    first = !std::exchange(listens_, true);
  }
  if (first) {
    const auto kept = connection_->name() ? nullptr : shared_from_this();
    connection_->setEventHandler([weak = weak_from_this(), kept](const xpc::Event& event) {
      if (const auto self = weak.lock()) self->handle(event);
    });
  }
  connection_->resume();
}

void XPCConnection::Impl::callRemote(const std::string& selector) {
  const XPCInterface remote = get(&Impl::remoteInterface_);
  if (!remote.hasOperation(selector)) {
    throw Exception(NSInvalidArgumentException, "the remote interface " + remote.name() + " has no operation " + selector);
  }
  connection_->send(Value::dictionary(
      {{std::string(kInterfaceKey), Value::string(remote.name())}, {std::string(kSelectorKey), Value::string(selector)}}));
}

void XPCConnection::Impl::handle(const xpc::Event& event) {
  if (const auto* error = std::get_if<ConnectionError>(&event)) return handleError(*error);
  handleMessage(std::get<Value>(event));
}

void XPCConnection::Impl::handleError(const ConnectionError& error) {
  set(&Impl::lastError_, error.description);
  if (error.kind == ConnectionError::Kind::Interrupted) {
    if (const auto handler = get(&Impl::interruptionHandler_)) handler();
  } else if (error.kind == ConnectionError::Kind::Invalid) {
    const auto handler = get(&Impl::invalidationHandler_);
    set(&Impl::interruptionHandler_, {});
    set(&Impl::invalidationHandler_, {});
    set(&Impl::exported_, {});
    if (handler) handler();
  }
}

void XPCConnection::Impl::handleMessage(const Value& message) {
  const auto ignore = [](const std::string& why) { NSLog("xpc: a message was ignored: " + why); };
  const std::string interface = textUnder(message, kInterfaceKey);
  auto call = std::make_shared<Call>(Call{get(&Impl::exportedInterface_), textUnder(message, kSelectorKey), nullptr, nullptr});
  const Exported exported = get(&Impl::exported_);
  if (interface.empty() || call->selector.empty()) return ignore("it names no interface and selector");
  if (!exported.object) return ignore("no object is exported for " + interface + " " + call->selector);
  if (interface != call->interface.name()) return ignore("the interface " + interface + " is not exported");
  if (!call->interface.hasOperation(call->selector)) return ignore("the interface " + interface + " has no operation " + call->selector);
  if (exported.type != call->interface.protocolType())
    return ignore("the exported object is not of the type that the interface " + interface + " was made for");
  call->running = RunningCall::begin();
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

XPCConnection::XPCConnection(std::shared_ptr<xpc::Connection> connection) : impl_(std::make_shared<Impl>(std::move(connection))) {}
XPCConnection::~XPCConnection() = default;

void XPCConnection::setExportedInterface(XPCInterface interface) { impl_->set(&Impl::exportedInterface_, std::move(interface)); }
XPCInterface XPCConnection::exportedInterface() const { return impl_->get(&Impl::exportedInterface_); }
void XPCConnection::setExportedObject(std::shared_ptr<void> object, std::type_index type) {
  impl_->set(&Impl::exported_, Impl::Exported{std::move(object), type});
}
std::shared_ptr<void> XPCConnection::exportedObject() const { return impl_->get(&Impl::exported_).object; }
std::shared_ptr<void> XPCConnection::exportedObject(std::type_index type) const {
  auto exported = impl_->get(&Impl::exported_);
  return exported.type == type ? exported.object : nullptr;
}

void XPCConnection::setRemoteObjectInterface(XPCInterface interface) { impl_->set(&Impl::remoteInterface_, std::move(interface)); }
void XPCConnection::callRemote(const std::string& selector) { impl_->callRemote(selector); }
void XPCConnection::scheduleSendBarrierBlock(std::function<void()> block) { impl_->connection().sendBarrier(std::move(block)); }
void XPCConnection::setInterruptionHandler(std::function<void()> handler) { impl_->set(&Impl::interruptionHandler_, std::move(handler)); }
void XPCConnection::setInvalidationHandler(std::function<void()> handler) { impl_->set(&Impl::invalidationHandler_, std::move(handler)); }
std::string XPCConnection::lastErrorDescription() const { return impl_->get(&Impl::lastError_); }

void XPCConnection::resume() { impl_->resume(); }
void XPCConnection::suspend() { impl_->connection().suspend(); }
void XPCConnection::invalidate() { impl_->connection().cancel(); }

pid_t XPCConnection::processIdentifier() const { return impl_->connection().pid(); }
uid_t XPCConnection::effectiveUserIdentifier() const { return impl_->connection().euid(); }
gid_t XPCConnection::effectiveGroupIdentifier() const { return impl_->connection().egid(); }
std::uint32_t XPCConnection::auditSessionIdentifier() const { return impl_->connection().asid(); }
std::optional<std::string> XPCConnection::serviceName() const { return impl_->connection().name(); }

}  // namespace platform
