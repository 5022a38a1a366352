#include "tests/xpc/InProcessService.h"

#include <stdexcept>

#include "tests/support/Eventually.h"

namespace kestrine::test {

using platform::xpc::Connection;

InProcessService::InProcessService(std::function<void(Peer&)> onPeer, platform::xpc::ListenerLimits limits)
    : state_(std::make_shared<State>()) {
  listener_ = platform::xpc::Listener::create(
      listenAt(path()),
      [state = state_, onPeer](const std::shared_ptr<Connection>& connection) {
        Peer peer{connection, {}};
        connection->setEventHandler(peer.events.handler());
        {
          const std::lock_guard lock(state->mutex);
          state->peers.push_back(peer);
        }
        connection->resume();
        if (onPeer) onPeer(peer);
      },
      limits);
  listener_->resume();
}

InProcessService::~InProcessService() {
  listener_->cancel();
  const std::lock_guard lock(state_->mutex);
  for (const Peer& peer : state_->peers) peer.connection->cancel();
}

platform::FileHandle InProcessService::connectPeer() {
  platform::FileHandle socket = connect();
  if (!sendBytes(socket, frame(kHello)) || !readFrame(socket)) throw std::runtime_error("the listener did not greet");
  static_cast<void>(peer(greeted_++));
  return socket;
}

std::size_t InProcessService::peerCount() const {
  const std::lock_guard lock(state_->mutex);
  return state_->peers.size();
}

InProcessService::Peer InProcessService::peer(std::size_t index) const {
  if (!eventually([&] { return peerCount() > index; })) throw std::runtime_error("no such peer came");
  const std::lock_guard lock(state_->mutex);
  return state_->peers[index];
}

void InProcessService::forgetPeers() {
  std::vector<Peer> forgotten;
  const std::lock_guard lock(state_->mutex);
  forgotten.swap(state_->peers);
}

}  // namespace kestrine::test
