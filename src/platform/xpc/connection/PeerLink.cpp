#include "platform/xpc/connection/PeerLink.h"

#include <utility>

#include "platform/xpc/connection/ConnectionCore.h"

namespace platform::xpc {

void PeerLink::send(Outgoing outgoing) {
  if (state_ != State::Greeted) return outgoing.drop();
  write(std::move(outgoing));
}

void PeerLink::connected(std::shared_ptr<Channel> channel) {
  attach(std::move(channel), State::Greeted);
  write({OutgoingFrame::make(FrameKind::Hello), nullptr});
  if (state_ == State::Greeted) core_.sendDirectly(channel_->sendQueue());
}

void PeerLink::ended(const std::string& reason) { invalidate("the client is gone: " + reason); }

}  // namespace platform::xpc
