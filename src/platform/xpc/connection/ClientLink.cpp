#include "platform/xpc/connection/ClientLink.h"

#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <thread>
#include <utility>

#include "platform/concurrency/loop/Weakly.h"
#include "platform/concurrency/queue/SerialQueue.h"
#include "platform/xpc/connection/ConnectionCore.h"

namespace platform::xpc {

namespace {

/// How often a service is tried that ends without having taken the message.
constexpr int kMaximumAttempts = 5;
constexpr std::chrono::milliseconds kPauseBetweenAttempts{50};

/// Runs `attempt` on a pool thread; what it throws becomes the error that it would have returned.
template <class Outcome>
void attemptOnPoolThread(std::function<Outcome()> attempt, std::function<void(Outcome)> done) {
  runOnPoolThread([attempt = std::move(attempt), done = std::move(done)] {
    Outcome outcome = LaunchError{};
    try {
      outcome = attempt();
    } catch (const std::exception& exception) {
      outcome = LaunchError{exception.what()};
    } catch (...) {
      outcome = LaunchError{"an exception of an unknown type"};
    }
    done(std::move(outcome));
  });
}

}  // namespace

ClientLink::ClientLink(Connection::Core& core, std::string name) : Link(core), name_(std::move(name)) {}

void ClientLink::resumed() {
  using Outcome = std::optional<LaunchError>;
  attemptOnPoolThread<Outcome>([name = name_] { return checkService(name); },
                               weakly(&core_, [this](Connection::Core& core, const Outcome& unknown) {
                                 if (!unknown) return;
                                 onIOThread([this, owner = core.shared_from_this(), reason = unknown->reason] {
                                   assertOnIOThread();
                                   invalidate(reason);
                                 });
                               }));
}

void ClientLink::send(Outgoing outgoing) {
  switch (state_) {
    case State::Idle:
      if (outgoing.barrier) return outgoing.drop();
      keep(std::move(outgoing));
      return open();
    case State::Connecting:
      return keep(std::move(outgoing));
    case State::Connected: {
      const bool isMessage = !outgoing.barrier;
      keep(std::move(outgoing));
      // A copy: the next process may have to be sent it too.
      if (state_ == State::Connected && isMessage) write(kept_.back());
      return;
    }
    case State::Greeted:
      return write(std::move(outgoing));
    case State::Over:
      return outgoing.drop();
  }
}

void ClientLink::keep(Outgoing outgoing) {
  keptBytes_ += outgoing.frame.bytes.size();
  kept_.push_back(std::move(outgoing));
  if (keptBytes_ > SendQueue::kMaximumBytes) interrupt("too many messages wait for it to start");
}

void ClientLink::dropKept() {
  keptBytes_ = 0;
  for (const Outgoing& outgoing : std::exchange(kept_, {})) outgoing.drop();
}

void ClientLink::open() {
  state_ = State::Connecting;
  const auto pause = kPauseBetweenAttempts * attempts_++;
  using Outcome = Result<FileHandle, LaunchError>;
  attemptOnPoolThread<Outcome>(
      [name = name_, pause] {
        std::this_thread::sleep_for(pause);
        return connectToService(name);
      },
      [connected = weakly(&core_, [this](Connection::Core&, Outcome& socket) { opened(std::move(socket)); })](Outcome socket) {
        onIOThread([connected, socket = std::move(socket)]() mutable { connected(socket); });
      });
}

void ClientLink::opened(Result<FileHandle, LaunchError> socket) {
  assertOnIOThread();
  if (state_ != State::Connecting) return;
  if (!socket) return invalidate(socket.error().reason);
  connected(Channel::create(*std::move(socket), Channel::Side::Client));
}

void ClientLink::connected(std::shared_ptr<Channel> channel) {
  attach(std::move(channel), State::Connected);
  // What cannot be written ends the channel, and this state with it.
  for (std::size_t i = 0; state_ == State::Connected && i < kept_.size(); ++i) {
    if (!kept_[i].barrier) write(kept_[i]);
  }
  startReading();
}

void ClientLink::greeted() {
  state_ = State::Greeted;
  attempts_ = 0;
  keptBytes_ = 0;
  for (Outgoing& outgoing : std::exchange(kept_, {})) {
    if (outgoing.barrier) write(std::move(outgoing));
  }
  core_.sendDirectly(channel_->sendQueue());
}

void ClientLink::ended(const std::string& reason) {
  if (state_ == State::Over) return;
  // A process that is about to end may still have let us connect.
  const bool again = state_ == State::Connected && !kept_.empty() && attempts_ < kMaximumAttempts;
  if (!again) return interrupt(reason);
  channel_ = nullptr;
  open();
}

void ClientLink::interrupt(const std::string& reason) {
  detach();
  state_ = State::Idle;
  attempts_ = 0;
  dropKept();
  core_.identified({});
  core_.inbox().putError({ConnectionError::Kind::Interrupted,
                          "Connection interrupted: the service " + name_ + ": " + reason + "; the next message starts it again"});
}

}  // namespace platform::xpc
