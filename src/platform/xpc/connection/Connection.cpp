#include "platform/xpc/connection/Connection.h"

#include <utility>

#include "platform/foundation/base/Exception.h"
#include "platform/xpc/channel/IOThread.h"
#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/connection/StatusAnswer.h"
#include "platform/xpc/value/WireFormat.h"

namespace platform::xpc {

std::shared_ptr<Connection> Connection::create(std::string serviceName) {
  return Core::makeConnection(std::make_shared<Core>(std::move(serviceName)));
}

std::shared_ptr<Connection> Connection::createWithSocket(FileHandle socket) {
  const auto core = std::make_shared<Core>(std::nullopt);
  auto connection = Core::makeConnection(core);
  onIOThread([core, handle = std::move(socket)]() mutable {
    assertOnIOThread();
    core->link().connected(Channel::create(std::move(handle), Channel::Side::Service, statusAnswer));
    core->link().startReading();
  });
  return connection;
}

Connection::Connection(std::shared_ptr<Core> core) : core_(std::move(core)) {}

Connection::~Connection() { core_->cancel(false); }

void Connection::setEventHandler(EventHandler handler) { core_->inbox().setHandler(std::move(handler)); }
void Connection::setTargetQueue(std::shared_ptr<SerialQueue> queue) { core_->inbox().setQueue(std::move(queue)); }
void Connection::setGoneHandler(std::function<void()> handler) { core_->setGoneHandler(std::move(handler)); }
void Connection::resume() { core_->resume(); }
void Connection::suspend() { core_->inbox().suspend(); }
void Connection::cancel() { core_->cancel(true); }
void Connection::sendBarrier(std::function<void()> block) { core_->sendBarrier(std::move(block)); }

void Connection::send(const Value& message) {
  if (!message.isDictionary()) {
    throw Exception(NSInvalidArgumentException,
                    "a message is a dictionary, not a value of the kind " + std::string(kindName(message.kind())));
  }
  auto encoded = encode(message);
  if (!encoded) throw Exception(NSInvalidArgumentException, encoded.error().reason);
  core_->send(OutgoingFrame::make(FrameKind::Message, *std::move(encoded)));
}

std::optional<std::string> Connection::name() const { return core_->name(); }
uid_t Connection::euid() const { return core_->credentials().euid; }
gid_t Connection::egid() const { return core_->credentials().egid; }
pid_t Connection::pid() const { return core_->credentials().pid; }
std::uint32_t Connection::asid() const { return core_->credentials().asid; }

}  // namespace platform::xpc
