#include "platform/xpc/channel/Channel.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <exception>
#include <utility>

#include "platform/concurrency/loop/Weakly.h"
#include "platform/foundation/base/Exception.h"

namespace platform::xpc {

namespace {

/// What one connection may read before the others have their turn.
constexpr int kReadsPerTurn = 4;
constexpr std::size_t kReadBytes = std::size_t{64} << 10U;

/// One buffer is enough: only the I/O thread reads.
std::span<std::byte> readBuffer() {
  static auto& buffer = *new std::array<std::byte, kReadBytes>;
  return buffer;
}

Result<Encoded, WireError> encodedStatus(const Channel::StatusSource& status) {
  try {
    return encode(status());
  } catch (const std::exception& exception) {
    return WireError{exception.what()};
  } catch (...) {
    return WireError{"an exception of an unknown type"};
  }
}

}  // namespace

std::shared_ptr<Channel> Channel::create(FileHandle socket, Side side, StatusSource status, double stallSeconds) {
  return std::shared_ptr<Channel>(new Channel(std::move(socket), side, std::move(status), stallSeconds));
}

Channel::Channel(FileHandle socket, Side side, StatusSource status, double stallSeconds)
    : side_(side),
      status_(std::move(status)),
      stallSeconds_(stallSeconds),
      outgoing_(std::make_shared<SendQueue>(socket.fileDescriptor())),
      state_(socket.isOpen() ? State::Open : State::Draining),
      socket_(std::move(socket)),
      reader_(connectingProcess(socket_.fileDescriptor())) {
  enableCredentials(socket_.fileDescriptor());
  credentials_ = socketOwner(socket_.fileDescriptor());
}

Channel::~Channel() { close(); }

void Channel::setHandlers(FrameHandler frameHandler, EndHandler endHandler) {
  frameHandler_ = std::move(frameHandler);
  endHandler_ = std::move(endHandler);
}

void Channel::setReading(bool reading) {
  if (state_ == State::Ended || reading == reading_) return;
  reading_ = reading;
  if (reading) scheduleReading();
  updateStallTimer(false);
  updateInterest();
}

// Frames may be here already, and the caller is not to be entered again from inside its own call.
void Channel::scheduleReading() {
  if (std::exchange(readScheduled_, true)) return;
  onIOThread(weakly(this, &Channel::readScheduled));
}

void Channel::readScheduled() {
  assertOnIOThread();
  readScheduled_ = false;
  updateStallTimer(dispatch());
  updateInterest();
}

void Channel::ready(unsigned events) {
  assertOnIOThread();
  constexpr unsigned kTrouble = EPOLLERR | EPOLLHUP;
  if ((events & (EPOLLOUT | kTrouble)) != 0) outgoing_->flush();
  if (reading_ && !readScheduled_) {
    if ((events & (EPOLLIN | kTrouble)) != 0) readSome();
  } else if ((events & kTrouble) != 0 && state_ == State::Open) {
    readTheRest();
  }
  updateInterest();
}

void Channel::readSome() {
  bool newFrame = false;
  for (int i = 0; i < kReadsPerTurn && state_ == State::Open && reading_; ++i) {
    auto received = receiveSome(socket_.fileDescriptor(), readBuffer());
    if (!received) return end(received.error().reason);
    if (!*received) break;
    const std::size_t size = (*received)->bytes;
    if (size == 0) return endOfStream();
    if (!takeIn(**std::move(received))) return;
    newFrame = dispatch() || newFrame;
    // Probably all there was; the loop tells when it was not.
    if (size < kReadBytes) break;
  }
  updateStallTimer(newFrame);
}

// The other end is gone, which the loop would tell again and again. How much it left is bounded by the kernel's buffer.
void Channel::readTheRest() {
  for (;;) {
    auto received = receiveSome(socket_.fileDescriptor(), readBuffer());
    if (!received || !*received || (*received)->bytes == 0) {
      state_ = State::Draining;
      return closeSocket();
    }
    if (!takeIn(**std::move(received))) return;
  }
}

bool Channel::takeIn(Received received) {
  if (!hasCredentials_) {
    if (!received.credentials) {
      end("its first message came without credentials");
      return false;
    }
    credentials_ = *received.credentials;
    credentials_.asid = auditSession(credentials_.pid);
    hasCredentials_ = true;
    if (side_ == Side::Client && !isBelieved(credentials_)) {
      end("it is neither this user's nor root's");
      return false;
    }
  }
  reader_.feed(std::span<const std::byte>(readBuffer()).first(received.bytes), std::move(received.descriptors));
  if (!reader_.holdsTooMuch()) return true;
  end("more is waiting to be received than this process takes");
  return false;
}

// Returns whether there was a frame.
bool Channel::dispatch() {
  bool any = false;
  while (state_ != State::Ended && reading_) {
    auto next = reader_.next();
    if (!next) {
      end("it broke the protocol: " + next.error().reason);
      break;
    }
    if (!*next) {
      if (state_ == State::Draining) endOfStream();
      break;
    }
    any = true;
    dispatchOne(**std::move(next));
  }
  return any;
}

void Channel::dispatchOne(Frame frame) {
  if (status_ && frame.kind == FrameKind::StatusRequest) return answerStatus();
  const bool expected =
      frame.kind == FrameKind::Hello || frame.kind == FrameKind::Message || (side_ == Side::Client && frame.kind == FrameKind::StatusReply);
  if (!expected) return end("it broke the protocol: that kind of frame is not for this end");
  // A copy: the handler may hand this channel to another owner, and so replace itself.
  if (const auto handler = frameHandler_) handler(std::move(frame));
}

void Channel::answerStatus() {
  if (outgoing_->bytes() > kMaximumQueuedStatusBytes) return end("it does not read what is sent to it");
  auto reply = encodedStatus(status_);
  if (!reply) return end("the status could not be told: " + reply.error().reason);
  write(OutgoingFrame::make(FrameKind::StatusReply, *std::move(reply)));
}

void Channel::write(OutgoingFrame frame) {
  if (state_ == State::Open) added(outgoing_->add(std::move(frame)));
}

void Channel::added(SendQueue::Added added) {
  if (added == SendQueue::Added::TooMuch) return end("it does not read what is sent to it");
  updateInterest();
}

void Channel::afterWriting(std::function<void()> block) { outgoing_->afterWriting(std::move(block)); }

// A channel that wants nothing stays on the loop: a hang-up is told whether it is asked for or not.
void Channel::updateInterest() {
  if (state_ != State::Open) return;
  const unsigned wanted = (reading_ && !readScheduled_ ? EPOLLIN : 0U) | (outgoing_->isEmpty() ? 0U : EPOLLOUT);
  if (wanted == interest_) return;
  interest_ = wanted;
  if (item_) {
    item_->setEvents(wanted);
  } else {
    item_ = RunLoopDescriptor::create(socket_.fileDescriptor(), wanted, weakly(this, &Channel::ready));
    try {
      ioLoop().add(item_);
    } catch (const Exception& exception) {
      // The system's limit of watched descriptors (epoll(7), max_user_watches).
      end(exception.reason());
    }
  }
}

// One timer while a frame is under way, none between frames: an idle connection wakes nobody.
void Channel::updateStallTimer(bool newFrame) {
  hadFrame_ = hadFrame_ || newFrame;
  const bool waiting = side_ == Side::Service && state_ == State::Open && reading_ && (!hadFrame_ || reader_.isInsideFrame());
  if (stallTimer_ && (newFrame || !waiting)) std::exchange(stallTimer_, nullptr)->invalidate();
  if (!waiting || stallTimer_) return;
  stallTimer_ = RunLoopTimer::create(stallSeconds_, 0, weakly(this, &Channel::stalled));
  ioLoop().add(stallTimer_);
}

void Channel::stalled() {
  assertOnIOThread();
  end("it began no message, or did not end the one that it began");
}

void Channel::endOfStream() { end(reader_.isInsideFrame() ? "it closed in the middle of a message" : "it closed the connection"); }

void Channel::end(const std::string& reason) {
  if (state_ == State::Ended) return;
  const auto self = shared_from_this();
  const auto handler = std::exchange(endHandler_, nullptr);
  close();
  if (handler) handler(reason);
}

void Channel::cutOff(const std::string& reason) { end(reason); }

void Channel::close() {
  const State former = std::exchange(state_, State::Ended);
  if (former == State::Ended) return;
  frameHandler_ = nullptr;
  endHandler_ = nullptr;
  reader_ = FrameReader();
  if (former == State::Open) closeSocket();
}

// The state has been left in which there is a socket.
void Channel::closeSocket() {
  if (const auto item = std::exchange(item_, nullptr)) item->invalidate();
  if (const auto timer = std::exchange(stallTimer_, nullptr)) timer->invalidate();
  interest_.reset();
  auto socket = std::move(socket_);
  // Before the descriptor becomes another file's.
  outgoing_->close();
  socket.closeFile();
  if (const auto handler = std::exchange(closedHandler_, nullptr)) handler();
}

}  // namespace platform::xpc
