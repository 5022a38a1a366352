#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/concurrency/queue/SerialQueue.h"
#include "platform/xpc/channel/Channel.h"
#include "platform/xpc/channel/IOThread.h"
#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/connection/Listener.h"

// Internal to the channel: what a Listener does.
namespace platform::xpc {

/// Made and asked for its statistics on any thread; the rest REQUIRES the I/O thread.
class Listener::Core : public std::enable_shared_from_this<Listener::Core> {
 public:
  Core(FileHandle socket, ConnectionFunction function, ListenerLimits limits);

  void start() REQUIRES(kIOThread);
  void stop() REQUIRES(kIOThread);
  /// Stops accepting and tells every peer that the process is about to end; `done` is called when all handlers have returned.
  void terminate(const std::string& reason, std::function<void()> done) REQUIRES(kIOThread);
  [[nodiscard]] Listener::Statistics statistics() const;

 private:
  // Called by the I/O thread's loop, and asserting that.
  void acceptSome();
  void continueAccepting();
  void receiveFrom(const Channel* caller, Frame frame);
  void socketClosed(const Channel* channel);

  /// A socket that was accepted.
  struct Client {
    std::shared_ptr<Channel> channel;
    pid_t process = 0;
    /// Counts up, so that the newest is known.
    std::uint64_t number = 0;
    /// It has no place among those that are served yet.
    bool waits = false;
    /// What it sent meanwhile, other than status requests.
    std::optional<Frame> first;
    bool isClosed = false;
  };
  using Clients = std::unordered_map<const Channel*, Client>;

  int acceptOne() REQUIRES(kIOThread);
  void admit(FileHandle socket) REQUIRES(kIOThread);
  /// Whether there is a place for another connection of the process, which one of a process that has more makes.
  bool makePlaceFor(pid_t process) REQUIRES(kIOThread);
  void boundWaiting() REQUIRES(kIOThread);
  void sayFull(const std::string& consequence) REQUIRES(kIOThread);
  void fillPlaces() REQUIRES(kIOThread);
  void letIn(Client& client) REQUIRES(kIOThread);
  /// Takes it out of the books.
  void forget(Clients::iterator client) REQUIRES(kIOThread);
  /// The newest connection, served or waiting, of the process that has most of those.
  Client* newestOfTheGreatest(bool waits, std::size_t& count) REQUIRES(kIOThread);
  void pause(const std::string& why) REQUIRES(kIOThread);
  void retryLater() REQUIRES(kIOThread);
  void becomePeer(const std::shared_ptr<Channel>& channel, Frame first) REQUIRES(kIOThread);

  const ConnectionFunction function_;
  const ListenerLimits limits_;
  const std::shared_ptr<SerialQueue> queue_;

  FileHandle socket_ GUARDED_BY(kIOThread);
  std::shared_ptr<RunLoopDescriptor> item_ GUARDED_BY(kIOThread);
  std::shared_ptr<RunLoopTimer> retryTimer_ GUARDED_BY(kIOThread);
  bool saidPaused_ GUARDED_BY(kIOThread) = false;
  Clients clients_ GUARDED_BY(kIOThread);
  std::uint64_t lastNumber_ GUARDED_BY(kIOThread) = 0;
  std::size_t waiting_ GUARDED_BY(kIOThread) = 0;
  bool saidFull_ GUARDED_BY(kIOThread) = false;
  /// The place that becomes free is for somebody in particular.
  bool isPlaceTaken_ GUARDED_BY(kIOThread) = false;
  std::unordered_map<const Channel*, std::weak_ptr<Connection::Core>> peers_ GUARDED_BY(kIOThread);

  std::atomic<std::size_t> openSockets_{0};
  std::atomic<std::size_t> peerCount_{0};
  std::atomic<std::uint64_t> accepted_{0};
};

}  // namespace platform::xpc
