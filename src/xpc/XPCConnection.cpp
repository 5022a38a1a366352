#include "xpc/XPCConnection.h"

#include <fmt/format.h>

#include <cstdint>
#include <utility>

#include "platform/concurrency/loop/UntilRunLoop.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/process/NeverReleased.h"
#include "platform/foundation/text/Printable.h"
#include "platform/foundation/value/Dictionary.h"
#include "xpc/XPCParse.h"

namespace kestrine {

namespace {

using platform::NeverReleased;
using platform::Object;
using platform::xpc::Connection;
using platform::xpc::ConnectionError;
using platform::xpc::Event;
using platform::xpc::Value;

/// A line for the log of whoever receives it.
constexpr const char* kDebugLogKey = "XPCDebugLog";
/// What a message is that was sent as something else than a dictionary.
constexpr const char* kContentsKey = "contents";

/// A dictionary of one entry.
Object wrapped(const char* key, const Object& value) {
  if (value.isNil()) throw platform::Exception(platform::NSInvalidArgumentException, "nil cannot be sent");
  return platform::Dictionary{{key, value}};
}

}  // namespace

std::shared_ptr<XPCConnection> XPCConnection::initWithServiceName(const std::string& serviceName) {
  return initWithConnection(Connection::create(serviceName));
}

std::shared_ptr<XPCConnection> XPCConnection::initWithConnection(const std::shared_ptr<Connection>& connection) {
  if (!connection) return nullptr;
  std::shared_ptr<XPCConnection> self(new XPCConnection(connection));
  self->receiveConnection(connection);
  self->setDispatchQueue(platform::SerialQueue::create(connection->name().value_or("")));
  self->resume();
  return self;
}

XPCConnection::XPCConnection(std::shared_ptr<Connection> connection) : connection_(std::move(connection)) {}

XPCConnection::~XPCConnection() {
  connection_->cancel();
  NeverReleased::registry().keep(std::move(dispatchQueue_));
  if (eventHandler_) NeverReleased::registry().keep(std::move(eventHandler_));
  if (errorHandler_) NeverReleased::registry().keep(std::move(errorHandler_));
}

void XPCConnection::setDispatchQueue(std::shared_ptr<platform::SerialQueue> dispatchQueue) {
  {
    const platform::MutexLock lock(mutex_);
    dispatchQueue_ = dispatchQueue;
  }
  connection_->setTargetQueue(std::move(dispatchQueue));
}

void XPCConnection::receiveConnection(const std::shared_ptr<Connection>& connection) {
  connection->setEventHandler([weak = weak_from_this()](const Event& event) {
    if (const auto self = weak.lock()) self->handleEvent(event);
  });
}

void XPCConnection::handleEvent(const Event& event) {
  const auto self = shared_from_this();
  if (const auto* error = std::get_if<ConnectionError>(&event)) return invokeErrorHandlerWithObject_connection(*error, self);
  handleMessage(objectWithXPCObject(std::get<Value>(event)));
}

void XPCConnection::handleMessage(Object message) {
  if (const Object line = message.objectForKey(kDebugLogKey)) {
    // Within a container the description escapes its texts already, and its line ends are its own.
    const std::string text = line.isString() ? platform::printable(line.stringValue()) : line.description();
    return platform::NSLog(fmt::format("LOG: {}", text));
  }
  const auto handler = eventHandler();
  if (!handler) return;
  // The handler may stay for ever, inside its run loop.
  Object held = std::move(message);
  platform::holdUntilRunLoop([&] { handler(held, shared_from_this()); }, [&held] { held = Object(); });
}

void XPCConnection::invokeErrorHandlerWithObject_connection(const ConnectionError& object,
                                                            const std::shared_ptr<XPCConnection>& connection) {
  if (const auto handler = connection->errorHandler()) handler(object, object.description, connection);
}

std::shared_ptr<platform::SerialQueue> XPCConnection::queue() const {
  if (auto queue = dispatchQueue()) return queue;
  throw platform::Exception(platform::NSInvalidArgumentException, "the connection has no dispatch queue");
}

void XPCConnection::async(std::function<void(XPCConnection&)> block) {
  queue()->async([self = shared_from_this(), block = std::move(block)] { block(*self); });
}

void XPCConnection::sendMessage(const Object& message) {
  async([message](XPCConnection& self) {
    const Object dictionary = message.isDictionary() ? message : wrapped(kContentsKey, message);
    if (const auto converted = newXPCObject(dictionary)) self.connection_->send(*converted);
  });
}

// NOLINTNEXTLINE(readability-identifier-naming): the name that the operation has
void XPCConnection::_sendLog(const Object& text) { sendMessage(wrapped(kDebugLogKey, text)); }

std::optional<std::string> XPCConnection::connectionName() {
  std::optional<std::string> name;
  queue()->sync([&] { name = connection_->name(); });
  return name;
}

Object XPCConnection::readNumber(const std::function<std::uint32_t(const Connection&)>& read) {
  std::uint32_t number = 0;
  queue()->sync([&] { number = read(*connection_); });
  return Object::numberWithLongLong(number);
}

Object XPCConnection::connectionEUID() {
  return readNumber([](const Connection& connection) { return connection.euid(); });
}

Object XPCConnection::connectionEGID() {
  return readNumber([](const Connection& connection) { return connection.egid(); });
}

Object XPCConnection::connectionProcessID() {
  return readNumber([](const Connection& connection) { return static_cast<std::uint32_t>(connection.pid()); });
}

Object XPCConnection::connectionAuditSessionID() {
  return readNumber([](const Connection& connection) { return connection.asid(); });
}

void XPCConnection::suspend() {
  async([](XPCConnection& self) { self.connection_->suspend(); });
}

void XPCConnection::resume() {
  async([](XPCConnection& self) { self.connection_->resume(); });
}

XPCConnection::EventHandler XPCConnection::eventHandler() const {
  const platform::MutexLock lock(mutex_);
  return eventHandler_;
}

void XPCConnection::setEventHandler(EventHandler eventHandler) {
  const platform::MutexLock lock(mutex_);
  // Swapped, so that what the former one holds is released without the lock.
  eventHandler_.swap(eventHandler);
}

XPCConnection::ErrorHandler XPCConnection::errorHandler() const {
  const platform::MutexLock lock(mutex_);
  return errorHandler_;
}

void XPCConnection::setErrorHandler(ErrorHandler errorHandler) {
  const platform::MutexLock lock(mutex_);
  errorHandler_.swap(errorHandler);
}

std::shared_ptr<platform::SerialQueue> XPCConnection::dispatchQueue() const {
  const platform::MutexLock lock(mutex_);
  return dispatchQueue_;
}

}  // namespace kestrine
