#include "platform/xpc/connection/ConnectionCore.h"

#include <unordered_map>
#include <utility>

#include "platform/concurrency/loop/Weakly.h"
#include "platform/xpc/connection/ClientLink.h"
#include "platform/xpc/connection/PeerLink.h"

namespace platform::xpc {

namespace {

std::unique_ptr<Link> makeLink(Connection::Core& core, const std::optional<std::string>& name) {
  if (name) return std::make_unique<ClientLink>(core, *name);
  return std::make_unique<PeerLink>(core);
}

/// The owner of the resumed peers' connections, each until it is over: who accepts a peer need not hold it.
using ResumedPeers = std::unordered_map<const Connection::Core*, std::shared_ptr<Connection>>;
Guarded<ResumedPeers>& resumedPeers() {
  static auto& peers = *new Guarded<ResumedPeers>;
  return peers;
}

}  // namespace

Connection::Core::Core(std::optional<std::string> name)
    : name_(std::move(name)), inbox_(Inbox::create(name_.value_or("xpc.peer"))), link_(makeLink(*this, name_)) {}

Connection::Core::~Core() = default;

std::shared_ptr<Connection> Connection::Core::makeConnection(std::shared_ptr<Core> core) {
  std::shared_ptr<Connection> connection(new Connection(core));
  const auto updateReading = weakly(core.get(), [](Core& self) {
    assertOnIOThread();
    self.link_->updateReading();
  });
  core->inbox_->setRoomHandler([updateReading] { onIOThread(updateReading); });
  const MutexLock lock(core->mutex_);
  core->self_ = connection;
  return connection;
}

Credentials Connection::Core::credentials() const {
  const MutexLock lock(mutex_);
  return credentials_;
}

void Connection::Core::identified(const Credentials& credentials) {
  const MutexLock lock(mutex_);
  credentials_ = credentials;
}

void Connection::Core::setGoneHandler(std::function<void()> handler) {
  {
    const MutexLock lock(mutex_);
    if (!gone_) return goneHandler_.swap(handler);
  }
  onIOThread(std::move(handler));
}

void Connection::Core::gone() {
  std::function<void()> handler;
  {
    const MutexLock lock(mutex_);
    gone_ = true;
    handler.swap(goneHandler_);
  }
  if (handler) handler();
}

void Connection::Core::resume() {
  inbox_->resume();
  {
    const MutexLock lock(mutex_);
    if (over_) return;
    if (const auto peer = name_ ? nullptr : self_.lock()) {
      resumedPeers().with([this, &peer](ResumedPeers& peers) { peers.try_emplace(this, peer); });
    }
    if (std::exchange(resumedOnce_, true)) return;
  }
  link_->resumed();
}

void Connection::Core::send(OutgoingFrame frame) {
  MutexLock lock(sendMutex_);
  if (!direct_ || posted_ > 0) {
    lock.unlock();
    return post({std::move(frame), nullptr});
  }
  const auto added = direct_->add(std::move(frame));
  if (added == SendQueue::Added::Done) return;
  onIOThread(weakly(this, [queue = direct_, added](Core& self) {
    assertOnIOThread();
    self.link_->added(queue, added);
  }));
}

void Connection::Core::sendBarrier(std::function<void()> block) {
  post({{}, [inbox = inbox_, block = std::move(block)] { inbox->runOnQueue(block); }});
}

void Connection::Core::post(Outgoing outgoing) {
  const MutexLock lock(sendMutex_);
  ++posted_;
  onIOThread([self = shared_from_this(), outgoing = std::move(outgoing)]() mutable {
    assertOnIOThread();
    self->link_->send(std::move(outgoing));
    const MutexLock arrived(self->sendMutex_);
    --self->posted_;
  });
}

void Connection::Core::sendDirectly(std::shared_ptr<SendQueue> queue) {
  const MutexLock lock(sendMutex_);
  direct_ = std::move(queue);
}

void Connection::Core::cancel(bool tell) {
  {
    const MutexLock lock(mutex_);
    over_ = true;
  }
  // From here on no call of the handler begins but, if asked for, the last.
  if (tell) {
    inbox_->dropMessages();
  } else {
    inbox_->closeNow();
  }
  onIOThread([self = shared_from_this()] {
    assertOnIOThread();
    if (self->link_->isOver()) return;
    self->inbox_->dropMessages();
    self->link_->invalidate("it was cancelled");
  });
}

void Connection::Core::terminate(const std::string& reason, std::function<void()> told) {
  inbox_->putError({ConnectionError::Kind::TerminationImminent, "Termination imminent: " + reason}, std::move(told));
}

void Connection::Core::over(ConnectionError last) {
  {
    const MutexLock lock(mutex_);
    over_ = true;
  }
  // Nothing is resumed any more, so nobody is added behind this.
  auto peer = resumedPeers().with([this](ResumedPeers& peers) { return peers.extract(this); });
  inbox_->close(std::move(last), peer ? std::move(peer.mapped()) : nullptr);
}

}  // namespace platform::xpc
