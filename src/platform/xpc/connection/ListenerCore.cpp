#include "platform/xpc/connection/ListenerCore.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>
#include <vector>

#include "platform/concurrency/loop/Weakly.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/log/Contained.h"
#include "platform/foundation/log/Log.h"
#include "platform/xpc/channel/Credentials.h"
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
  std::vector<std::shared_ptr<Channel>> callers;
  for (const auto& [key, client] : clients_) {
    if (!peers_.contains(key)) callers.push_back(client.channel);
  }
  for (const auto& channel : callers) {
    channel->close();
    if (const auto found = clients_.find(channel.get()); found != clients_.end()) forget(found);
  }
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
  const pid_t process = connectingProcess(socket.fileDescriptor());
  const bool waits = openSockets_ >= limits_.connections && !makePlaceFor(process);
  if (waits) sayFull("further ones wait");
  if (waits) {
    ++waiting_;
  } else {
    ++openSockets_;
  }
  const auto channel = Channel::create(std::move(socket), Channel::Side::Service, statusAnswer, limits_.stallSeconds);
  const auto* key = channel.get();
  clients_.emplace(key, Client{.channel = channel, .process = process, .number = ++lastNumber_, .waits = waits, .first = {}});
  channel->setClosedHandler(weakly(this, [key](Core& self) { self.socketClosed(key); }));
  channel->setHandlers(weakly(this, [key](Core& self, Frame frame) { self.receiveFrom(key, std::move(frame)); }),
                       [](const std::string&) {});
  channel->setReading(true);
  if (waits) boundWaiting();
}

Listener::Core::Client* Listener::Core::newestOfTheGreatest(bool waits, std::size_t& count) {
  std::unordered_map<pid_t, std::size_t> counts;
  for (const auto& [key, client] : clients_) counts[client.process] += client.waits == waits && !client.isClosed ? 1U : 0U;
  const auto greatest = std::ranges::max_element(counts, {}, [](const auto& each) { return each.second; });
  count = greatest == counts.end() ? 0 : greatest->second;
  Client* newest = nullptr;
  for (auto& [key, client] : clients_) {
    const bool isOne = count > 0 && client.process == greatest->first && client.waits == waits && !client.isClosed;
    if (isOne && (newest == nullptr || client.number > newest->number)) newest = &client;
  }
  return newest;
}

bool Listener::Core::makePlaceFor(pid_t process) {
  std::size_t most = 0;
  const Client* const newest = newestOfTheGreatest(false, most);
  const auto own = static_cast<std::size_t>(std::ranges::count_if(
      clients_, [process](const auto& each) { return each.second.process == process && !each.second.waits && !each.second.isClosed; }));
  if (newest == nullptr || newest->process == process || most <= own + 1) return false;
  sayFull("process " + std::to_string(newest->process) + " has " + std::to_string(most) + " of them, which are closed for others'");
  const auto channel = newest->channel;
  isPlaceTaken_ = true;
  channel->cutOff("it has more connections than others, who need one");
  isPlaceTaken_ = false;
  return openSockets_ < limits_.connections;
}

void Listener::Core::boundWaiting() {
  if (waiting_ <= limits_.waiting) return;
  std::size_t most = 0;
  Client* const newest = newestOfTheGreatest(true, most);
  if (newest == nullptr) return;
  const auto channel = newest->channel;
  channel->cutOff("too many connections wait");
  if (const auto found = clients_.find(channel.get()); found != clients_.end()) forget(found);
}

// The oldest first. Once there is room again, the next time that there is none is said again.
void Listener::Core::fillPlaces() {
  if (isPlaceTaken_ || !socket_.isOpen()) return;
  while (waiting_ > 0 && openSockets_ < limits_.connections) {
    Client* oldest = nullptr;
    for (auto& [key, client] : clients_) {
      if (client.waits && (oldest == nullptr || client.number < oldest->number)) oldest = &client;
    }
    if (oldest == nullptr) return;
    letIn(*oldest);
  }
  if (waiting_ == 0 && openSockets_ <= limits_.connections / 2) saidFull_ = false;
}

void Listener::Core::sayFull(const std::string& consequence) {
  if (std::exchange(saidFull_, true)) return;
  NSLog("xpc: there are " + std::to_string(openSockets_) + " connections, the most there may be; " + consequence);
}

void Listener::Core::letIn(Client& client) {
  client.waits = false;
  --waiting_;
  if (!client.isClosed) ++openSockets_;
  if (!client.first) return;
  const auto channel = client.channel;
  becomePeer(channel, *std::exchange(client.first, std::nullopt));
}

void Listener::Core::forget(Clients::iterator client) {
  if (client->second.waits) --waiting_;
  // Kept by nothing else, perhaps, and at work.
  const auto channel = client->second.channel;
  clients_.erase(client);
}

void Listener::Core::receiveFrom(const Channel* caller, Frame frame) {
  assertOnIOThread();
  const auto found = clients_.find(caller);
  if (found == clients_.end()) return;
  const std::shared_ptr<Channel> channel = found->second.channel;
  if (!found->second.waits) return becomePeer(channel, std::move(frame));
  channel->setReading(false);
  found->second.first = std::move(frame);
}

void Listener::Core::becomePeer(const std::shared_ptr<Channel>& channel, Frame first) {
  channel->setReading(false);
  const auto core = std::make_shared<Connection::Core>(std::nullopt);
  if (const auto found = clients_.find(channel.get()); found != clients_.end() && found->second.isClosed) {
    forget(found);
    core->link().connected(channel);
    core->gone();
  } else {
    peers_.emplace(channel.get(), core);
    ++peerCount_;
    core->link().connected(channel);
  }
  queue_->async(Introduction(function_, core, std::move(first)));
}

void Listener::Core::socketClosed(const Channel* channel) {
  assertOnIOThread();
  const auto found = clients_.find(channel);
  const auto kept = found == clients_.end() ? nullptr : found->second.channel;
  if (found != clients_.end()) {
    if (!found->second.waits) --openSockets_;
    // What it sent while it waited is handed over all the same.
    found->second.isClosed = found->second.first.has_value();
    if (!found->second.isClosed) forget(found);
  }
  if (const auto peer = peers_.find(channel); peer != peers_.end()) {
    if (const auto core = peer->second.lock()) core->gone();
    peers_.erase(peer);
    --peerCount_;
  }
  fillPlaces();
  if (!item_) continueAccepting();
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
