#include "platform/xpc/connection/Link.h"

#include <utility>

#include "platform/concurrency/loop/Weakly.h"
#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/value/WireFormat.h"

namespace platform::xpc {

// A channel belongs to the I/O thread, whose last look at it may not be over.
Link::~Link() {
  if (!channel_) return;
  onIOThread([channel = std::move(channel_)] {
    assertOnIOThread();
    channel->close();
  });
}

void Link::attach(std::shared_ptr<Channel> channel, State state) {
  state_ = state;
  channel_ = std::move(channel);
  channel_->setHandlers(weakly(&core_,
                               [this](Connection::Core&, Frame frame) {
                                 assertOnIOThread();
                                 received(std::move(frame));
                               }),
                        weakly(&core_, [this](Connection::Core&, const std::string& reason) {
                          assertOnIOThread();
                          ended(reason);
                        }));
  core_.identified(channel_->credentials());
}

void Link::detach() {
  core_.sendDirectly(nullptr);
  if (channel_) channel_->close();
  channel_ = nullptr;
}

void Link::write(Outgoing outgoing) {
  if (outgoing.barrier) {
    channel_->afterWriting(std::move(outgoing.barrier));
  } else {
    channel_->write(std::move(outgoing.frame));
  }
}

void Link::received(Frame frame) {
  if (!hasChannel()) return;
  core_.identified(channel_->credentials());
  if (state_ == State::Connected) greeted();
  if (frame.kind != FrameKind::Message) return;
  auto message = decode(frame.payload, std::move(frame.descriptors));
  if (message && message->isDictionary()) {
    core_.inbox().put(*std::move(message), std::move(frame.budget));
    return updateReading();
  }
  channel_->close();
  ended("it broke the protocol: " + (message ? std::string("a message that is no dictionary") : message.error().reason));
}

void Link::startReading() {
  mayRead_ = true;
  updateReading();
}

void Link::updateReading() {
  if (hasChannel()) channel_->setReading(mayRead_ && !core_.inbox().isFull());
}

void Link::added(const std::shared_ptr<SendQueue>& queue, SendQueue::Added added) {
  if (channel_ && channel_->sendQueue() == queue) channel_->added(added);
}

void Link::invalidate(const std::string& reason) {
  if (state_ == State::Over) return;
  state_ = State::Over;
  detach();
  core_.over({ConnectionError::Kind::Invalid, "Connection invalid: " + reason});
  dropKept();
}

}  // namespace platform::xpc
