#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "platform/concurrency/RunLoop.h"
#include "platform/concurrency/SerialQueue.h"
#include "platform/xpc/channel/Channel.h"
#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/connection/Listener.h"

// Internal to the channel: what a Listener does.
namespace platform::xpc {

/// Threads: the I/O thread, but for what says otherwise.
class Listener::Core : public std::enable_shared_from_this<Listener::Core> {
 public:
  Core(FileHandle socket, ConnectionFunction function, std::size_t maximumConnections);

  void start();
  void stop();
  /// Stops accepting and tells every peer that the process is about to end; `done` is called when all handlers have returned.
  void terminate(const std::string& reason, std::function<void()> done);
  /// Any thread.
  [[nodiscard]] Listener::Statistics statistics() const;

 private:
  void acceptSome();
  int acceptOne();
  void receiveFrom(const Channel* caller, Frame frame);
  void admit(FileHandle socket);
  void pause(const std::string& why);
  void retryLater();
  void continueAccepting();
  void becomePeer(const std::shared_ptr<Channel>& channel, Frame first);
  void socketClosed(const Channel* channel);

  FileHandle socket_;
  const ConnectionFunction function_;
  const std::size_t maximumConnections_;
  const std::shared_ptr<SerialQueue> queue_;

  std::shared_ptr<RunLoopDescriptor> item_;
  std::shared_ptr<RunLoopTimer> retryTimer_;
  bool saidPaused_ = false;
  /// Sockets that have sent nothing but status requests.
  std::unordered_map<const Channel*, std::shared_ptr<Channel>> callers_;
  std::unordered_map<const Channel*, std::weak_ptr<Connection::Core>> peers_;

  std::atomic<std::size_t> openSockets_{0};
  std::atomic<std::size_t> peerCount_{0};
  std::atomic<std::uint64_t> accepted_{0};
};

}  // namespace platform::xpc
