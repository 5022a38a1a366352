#include "platform/xpc/connection/ListenerCore.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "platform/concurrency/loop/Weakly.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/log/Contained.h"
#include "platform/foundation/log/Log.h"
#include "platform/xpc/connection/StatusAnswer.h"

namespace platform::xpc {

namespace {

/// Accepted in one go, before other sockets have their turn.
constexpr int kAcceptsPerTurn = 16;
/// When descriptors are short they may become free anywhere in the process, which nobody tells.
constexpr double kRetrySeconds = 1;

bool isShortage(int error) {
  constexpr std::array kShortages{EMFILE, ENFILE, ENOBUFS, ENOMEM};
  for (const int shortage : kShortages) {
    if (error == shortage) return true;
  }
  return false;
}

/// Calls the function of the listener with a new peer, and then lets the peer's messages in.
class Introduction {
 public:
  Introduction(Listener::ConnectionFunction function, std::shared_ptr<Connection::Core> core, Frame first)
      : function_(std::move(function)),
        core_(std::move(core)),
        connection_(Connection::Core::makeConnection(core_)),
        first_(std::move(first)) {}

  void operator()() {
    const bool accepted =
        runContained("xpc: a new connection was refused, because its connection function failed", [this] { function_(connection_); });
    if (!accepted) connection_->cancel();
    // If nobody kept it this is its end, and it is over before the block below runs.
    connection_ = nullptr;
    onIOThread([core = core_, first = std::move(first_)]() mutable {
      assertOnIOThread();
      core->link().received(std::move(first));
      core->link().startReading();
    });
  }

 private:
  Listener::ConnectionFunction function_;
  std::shared_ptr<Connection::Core> core_;
  std::shared_ptr<Connection> connection_;
  Frame first_;
};

}  // namespace

Listener::Core::Core(FileHandle socket, ConnectionFunction function, ListenerLimits limits)
    : function_(std::move(function)), limits_(limits), queue_(SerialQueue::create("xpc.listener")), socket_(std::move(socket)) {
  // Set on the socket itself, which a launcher may share; every user of a listening socket in an event loop wants the same.
  fcntl(socket_.fileDescriptor(), F_SETFL, fcntl(socket_.fileDescriptor(), F_GETFL) | O_NONBLOCK);
}

void Listener::Core::start() {
  if (socket_.isOpen() && !item_) continueAccepting();
}

void Listener::Core::stop() {
  if (const auto item = std::exchange(item_, nullptr)) item->invalidate();
  if (const auto timer = std::exchange(retryTimer_, nullptr)) timer->invalidate();
  socket_.closeFile();
  for (const auto& [key, channel] : std::exchange(callers_, {})) channel->close();
}

void Listener::Core::continueAccepting() {
  assertOnIOThread();
  if (const auto timer = std::exchange(retryTimer_, nullptr)) timer->invalidate();
  if (!socket_.isOpen() || item_) return;
  item_ = RunLoopDescriptor::create(socket_.fileDescriptor(), EPOLLIN, weakly(this, [](Core& self, unsigned) { self.acceptSome(); }));
  ioLoop().add(item_);
}

void Listener::Core::acceptSome() {
  assertOnIOThread();
  for (int i = 0; i < kAcceptsPerTurn; ++i) {
    if (openSockets_ >= limits_.connections) {
      return pause("there are " + std::to_string(openSockets_) + " connections, the most there may be; further ones wait");
    }
    const int error = acceptOne();
    if (isShortage(error)) {
      pause("a connection could not be accepted: " + errnoText(error) + "; it waits");
      return retryLater();
    }
    if (error != 0) {
      // Nobody waits any more, or the one that did has gone away again (accept(2)); the loop comes back for others.
      saidPaused_ = false;
      return;
    }
  }
}

/// Returns errno, 0 for success.
int Listener::Core::acceptOne() {
  FileHandle socket(accept4(socket_.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!socket.isOpen()) return errno;
  admit(std::move(socket));
  return 0;
}

// A socket that waits is told by the loop again and again, so a listener that cannot take it leaves the loop.
void Listener::Core::pause(const std::string& why) {
  if (const auto item = std::exchange(item_, nullptr)) item->invalidate();
  if (!std::exchange(saidPaused_, true)) NSLog("xpc: " + why);
}

void Listener::Core::retryLater() {
  retryTimer_ = RunLoopTimer::create(kRetrySeconds, 0, weakly(this, &Core::continueAccepting));
  ioLoop().add(retryTimer_);
}

void Listener::Core::admit(FileHandle socket) {
  ++accepted_;
  ++openSockets_;
  const auto channel = Channel::create(std::move(socket), Channel::Side::Service, statusAnswer, limits_.stallSeconds);
  callers_.emplace(channel.get(), channel);
  const auto* key = channel.get();
  channel->setClosedHandler(weakly(this, [key](Core& self) { self.socketClosed(key); }));
  channel->setHandlers(weakly(this, [key](Core& self, Frame frame) { self.receiveFrom(key, std::move(frame)); }),
                       [](const std::string&) {});
  channel->setReading(true);
}

void Listener::Core::receiveFrom(const Channel* caller, Frame frame) {
  assertOnIOThread();
  const auto found = callers_.find(caller);
  if (found == callers_.end()) return;
  const std::shared_ptr<Channel> channel = found->second;
  becomePeer(channel, std::move(frame));
}

void Listener::Core::becomePeer(const std::shared_ptr<Channel>& channel, Frame first) {
  channel->setReading(false);
  const auto core = std::make_shared<Connection::Core>(std::nullopt);
  callers_.erase(channel.get());
  peers_.emplace(channel.get(), core);
  ++peerCount_;
  core->link().connected(channel);
  queue_->async(Introduction(function_, core, std::move(first)));
}

void Listener::Core::socketClosed(const Channel* channel) {
  assertOnIOThread();
  --openSockets_;
  callers_.erase(channel);
  if (const auto found = peers_.find(channel); found != peers_.end()) {
    if (const auto peer = found->second.lock()) peer->gone();
    peers_.erase(found);
    --peerCount_;
  }
  if (!item_ && openSockets_ < limits_.connections) continueAccepting();
}

void Listener::Core::terminate(const std::string& reason, std::function<void()> done) {
  stop();
  // Goes away with the last handler's call.
  const std::shared_ptr<void> all(nullptr, [done = std::move(done)](void*) { done(); });
  for (const auto& [key, weak] : peers_) {
    if (const auto peer = weak.lock()) peer->terminate(reason, [all] {});
  }
}

Listener::Statistics Listener::Core::statistics() const {
  return {.openSockets = openSockets_, .peers = peerCount_, .accepted = accepted_};
}

}  // namespace platform::xpc
