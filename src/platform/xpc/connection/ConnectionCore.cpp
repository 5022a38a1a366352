#include "platform/xpc/connection/ConnectionCore.h"

#include <chrono>
#include <exception>
#include <thread>
#include <utility>

#include "platform/xpc/channel/IOThread.h"

namespace platform::xpc {

namespace {

/// How often a service is tried that ends without having taken the message.
constexpr int kMaximumAttempts = 5;
constexpr std::chrono::milliseconds kPauseBetweenAttempts{50};

/// Runs `attempt` on a pool thread; what it throws becomes the error that it would have returned.
template <class Result>
void attemptOnPoolThread(std::function<Result()> attempt, std::function<void(Result)> done) {
  runOnPoolThread([attempt = std::move(attempt), done = std::move(done)] {
    Result result = LaunchError{};
    try {
      result = attempt();
    } catch (const std::exception& exception) {
      result = LaunchError{exception.what()};
    }
    done(std::move(result));
  });
}

}  // namespace

Connection::Core::Core(std::optional<std::string> name) : name_(std::move(name)), inbox_(Inbox::create(name_.value_or("xpc.peer"))) {}

// A channel belongs to the I/O thread, whose last look at it may not be over.
Connection::Core::~Core() {
  if (channel_) onIOThread([channel = std::move(channel_)] { channel->close(); });
}

std::shared_ptr<Connection> Connection::Core::makeConnection(std::shared_ptr<Core> core) {
  std::shared_ptr<Connection> connection(new Connection(core));
  core->inbox_->setRoomHandler([weak = core->weak_from_this()] {
    onIOThread([weak] {
      if (const auto self = weak.lock()) self->updateReading();
    });
  });
  const std::lock_guard lock(core->mutex_);
  core->self_ = connection;
  return connection;
}

Credentials Connection::Core::credentials() const {
  const std::lock_guard lock(mutex_);
  return credentials_;
}

void Connection::Core::resume() {
  inbox_->resume();
  {
    const std::lock_guard lock(mutex_);
    if (over_) return;
    if (!name_) kept_ = self_.lock();
    if (std::exchange(resumedOnce_, true) || !name_) return;
  }
  using Result = std::optional<LaunchError>;
  attemptOnPoolThread<Result>([name = *name_] { return checkService(name); },
                              [weak = weak_from_this()](const Result& result) {
                                const auto self = weak.lock();
                                if (!self || !result) return;
                                onIOThread([self, reason = result->reason] { self->fail(reason); });
                              });
}

void Connection::Core::send(OutgoingFrame frame) {
  std::unique_lock lock(sendMutex_);
  if (!direct_ || posted_ > 0) {
    lock.unlock();
    return post({std::move(frame), nullptr});
  }
  const auto added = direct_->add(std::move(frame));
  if (added == SendQueue::Added::Done) return;
  onIOThread([weak = weak_from_this(), queue = direct_, added] {
    const auto self = weak.lock();
    if (self && self->channel_ && self->channel_->sendQueue() == queue) self->channel_->added(added);
  });
}

void Connection::Core::sendBarrier(std::function<void()> block) {
  post({{}, [inbox = inbox_, block = std::move(block)] { inbox->runOnQueue(block); }});
}

void Connection::Core::post(Outgoing outgoing) {
  const std::lock_guard lock(sendMutex_);
  ++posted_;
  onIOThread([self = shared_from_this(), shared = std::make_shared<Outgoing>(std::move(outgoing))] {
    self->enqueue(std::move(*shared));
    const std::lock_guard arrived(self->sendMutex_);
    --self->posted_;
  });
}

// From here on `send` writes itself, after what is on its way to this thread; or no more.
void Connection::Core::sendDirectly(bool allowed) {
  const std::lock_guard lock(sendMutex_);
  direct_ = allowed ? channel_->sendQueue() : nullptr;
}

void Connection::Core::enqueue(Outgoing outgoing) {
  const bool isBarrier = outgoing.barrier != nullptr;
  if (state_ == State::Over || (isBarrier && state_ == State::Closed)) {
    if (isBarrier) outgoing.barrier();
    return;
  }
  if (greeted_) return transmit(outgoing);
  waitingBytes_ += outgoing.frame.bytes.size();
  waiting_.push_back(std::move(outgoing));
  if (waitingBytes_ > SendQueue::kMaximumBytes) return interrupt("too many messages wait for it to start");
  if (state_ == State::Open && !isBarrier) return transmit(waiting_.back());
  if (state_ == State::Closed && name_) open();
}

void Connection::Core::transmit(const Outgoing& outgoing) {
  if (outgoing.barrier) {
    channel_->afterWriting(outgoing.barrier);
  } else {
    channel_->write(outgoing.frame);
  }
}

void Connection::Core::greeted() {
  if (std::exchange(greeted_, true)) return;
  attempts_ = 0;
  waitingBytes_ = 0;
  for (const Outgoing& outgoing : std::exchange(waiting_, {})) {
    if (outgoing.barrier && state_ == State::Open) transmit(outgoing);
  }
  if (state_ == State::Open) sendDirectly(true);
}

void Connection::Core::cancel(bool tell) {
  {
    const std::lock_guard lock(mutex_);
    over_ = true;
  }
  // From here on no call of the handler begins but, if asked for, the last.
  if (tell) {
    inbox_->dropMessages();
  } else {
    inbox_->closeNow();
  }
  onIOThread([self = shared_from_this()] {
    if (self->state_ == State::Over) return;
    self->inbox_->dropMessages();
    self->finish("Connection invalid: it was cancelled");
  });
}

void Connection::Core::adopt(std::shared_ptr<Channel> channel) {
  attach(std::move(channel));
  greeted_ = true;
  if (state_ == State::Open) channel_->write(OutgoingFrame::make(FrameKind::Hello));
  if (state_ == State::Open) sendDirectly(true);
}

void Connection::Core::startReading() {
  mayRead_ = true;
  updateReading();
}

void Connection::Core::terminate(const std::string& reason, std::function<void()> told) {
  inbox_->putError({ConnectionError::Kind::TerminationImminent, "Termination imminent: " + reason}, std::move(told));
}

void Connection::Core::attach(std::shared_ptr<Channel> channel) {
  state_ = State::Open;
  channel_ = std::move(channel);
  const auto weak = weak_from_this();
  channel_->setHandlers(
      [weak](Frame frame) {
        if (const auto self = weak.lock()) self->receive(std::move(frame));
      },
      [weak](const std::string& reason) {
        if (const auto self = weak.lock()) self->ended(reason);
      });
  const std::lock_guard lock(mutex_);
  credentials_ = channel_->credentials();
}

void Connection::Core::receive(Frame frame) {
  if (state_ != State::Open) return;
  {
    const std::lock_guard lock(mutex_);
    credentials_ = channel_->credentials();
  }
  greeted();
  if (frame.kind != FrameKind::Message) return;
  auto message = decode(frame.payload, std::move(frame.descriptors));
  const auto* error = std::get_if<WireError>(&message);
  if (error == nullptr && std::get<Value>(message).isDictionary()) {
    inbox_->put(std::move(std::get<Value>(message)), std::move(frame.hold));
    return updateReading();
  }
  channel_->close();
  ended("it broke the protocol: " + (error != nullptr ? error->reason : std::string("a message that is no dictionary")));
}

void Connection::Core::updateReading() {
  if (state_ == State::Open) channel_->setReading(mayRead_ && !inbox_->isFull());
}

void Connection::Core::open() {
  state_ = State::Opening;
  const auto pause = kPauseBetweenAttempts * attempts_++;
  using Result = platform::Result<FileHandle, LaunchError>;
  attemptOnPoolThread<Result>(
      [name = *name_, pause] {
        std::this_thread::sleep_for(pause);
        return connectToService(name);
      },
      [weak = weak_from_this()](Result result) {
        onIOThread([weak, shared = std::make_shared<Result>(std::move(result))] {
          if (const auto self = weak.lock()) self->opened(std::move(*shared));
        });
      });
}

void Connection::Core::opened(Result<FileHandle, LaunchError> result) {
  if (state_ != State::Opening) return;
  if (!result) return fail(result.error().reason);
  attach(Channel::create(std::move(*result), Channel::Side::Client));
  for (std::size_t i = 0; state_ == State::Open && i < waiting_.size(); ++i) {
    if (!waiting_[i].barrier) transmit(waiting_[i]);
  }
  startReading();
}

// A process that is about to end may still have let us connect.
bool Connection::Core::mayTryAgain() const { return !greeted_ && !waiting_.empty() && attempts_ < kMaximumAttempts; }

void Connection::Core::ended(const std::string& reason) {
  if (state_ == State::Over) return;
  if (!name_) return finish("Connection invalid: the client is gone: " + reason);
  if (!mayTryAgain()) return interrupt(reason);
  channel_ = nullptr;
  open();
}

void Connection::Core::interrupt(const std::string& reason) {
  sendDirectly(false);
  if (channel_) channel_->close();
  channel_ = nullptr;
  state_ = State::Closed;
  greeted_ = false;
  attempts_ = 0;
  dropWaiting();
  {
    const std::lock_guard lock(mutex_);
    credentials_ = {};
  }
  inbox_->putError({ConnectionError::Kind::Interrupted,
                    "Connection interrupted: the service " + *name_ + ": " + reason + "; the next message starts it again"},
                   nullptr);
}

void Connection::Core::fail(const std::string& reason) {
  if (state_ != State::Over) finish("Connection invalid: " + reason);
}

void Connection::Core::finish(const std::string& description) {
  state_ = State::Over;
  sendDirectly(false);
  if (channel_) channel_->close();
  channel_ = nullptr;
  std::shared_ptr<Connection> kept;
  {
    const std::lock_guard lock(mutex_);
    over_ = true;
    kept = std::move(kept_);
  }
  inbox_->close({ConnectionError::Kind::Invalid, description}, std::move(kept));
  dropWaiting();
}

void Connection::Core::dropWaiting() {
  waitingBytes_ = 0;
  for (const Outgoing& outgoing : std::exchange(waiting_, {})) {
    if (outgoing.barrier) outgoing.barrier();
  }
}

}  // namespace platform::xpc
