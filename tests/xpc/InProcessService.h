#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/xpc/connection/Listener.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/xpc/RawSocket.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace kestrine::test {

/// A listener in this process and the peers that it accepted, each with its events.
class InProcessService {
 public:
  struct Peer {
    std::shared_ptr<platform::xpc::Connection> connection;
    EventLog events;
  };
  /// `onPeer` runs at the end of the connection function, when the peer has been resumed.
  explicit InProcessService(std::function<void(Peer&)> onPeer = {}, platform::xpc::ListenerLimits limits = {});
  ~InProcessService();
  InProcessService(const InProcessService&) = delete;
  InProcessService& operator=(const InProcessService&) = delete;

  [[nodiscard]] platform::FileHandle connect() const { return connectTo(path()); }
  /// Connects and becomes a peer; waits until the connection function was called.
  [[nodiscard]] platform::FileHandle connectPeer();
  [[nodiscard]] std::string path() const { return folder_ / "socket"; }
  [[nodiscard]] std::size_t peerCount() const;
  /// Waits for it.
  [[nodiscard]] Peer peer(std::size_t index) const;
  [[nodiscard]] platform::xpc::Listener& listener() const { return *listener_; }
  /// Lets go of the connections.
  void forgetPeers();

 private:
  struct State {
    std::mutex mutex;
    std::vector<Peer> peers;
  };
  TemporaryDirectory folder_;
  std::size_t greeted_ = 0;
  std::shared_ptr<State> state_;
  std::shared_ptr<platform::xpc::Listener> listener_;
};

}  // namespace kestrine::test
