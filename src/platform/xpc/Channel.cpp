#include "platform/xpc/Channel.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <exception>
#include <stdexcept>
#include <utility>

#include "platform/foundation/Exception.h"
#include "platform/foundation/StatusRegistry.h"
#include "platform/xpc/IOThread.h"
#include "platform/xpc/ObjectConversion.h"

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

}  // namespace

std::shared_ptr<Channel> Channel::create(FileHandle socket, Side side) {
  return std::shared_ptr<Channel>(new Channel(std::move(socket), side));
}

Channel::Channel(FileHandle socket, Side side) : socket_(std::move(socket)), side_(side) {
  enableCredentials(socket_.fileDescriptor());
  credentials_ = socketOwner(socket_.fileDescriptor());
}

Channel::~Channel() { close(); }

void Channel::setHandlers(FrameHandler frameHandler, EndHandler endHandler) {
  frameHandler_ = std::move(frameHandler);
  endHandler_ = std::move(endHandler);
}

void Channel::setReading(bool reading) {
  if (!isOpen() || reading == reading_) return;
  reading_ = reading;
  if (reading) scheduleReading();
  updateStallTimer(false);
  updateInterest();
}

// Frames may be here already, and the caller is not to be entered again from inside its own call.
void Channel::scheduleReading() {
  if (std::exchange(readScheduled_, true)) return;
  onIOThread([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->readScheduled_ = false;
    self->updateStallTimer(self->dispatch());
    self->updateInterest();
  });
}

void Channel::ready(unsigned events) {
  const auto self = shared_from_this();
  constexpr unsigned kTrouble = EPOLLERR | EPOLLHUP;
  if ((events & (EPOLLOUT | kTrouble)) != 0) flush();
  if (reading_ && !readScheduled_ && (events & (EPOLLIN | kTrouble)) != 0) readSome();
  updateInterest();
}

void Channel::readSome() {
  bool newFrame = false;
  for (int i = 0; i < kReadsPerTurn && isOpen() && reading_; ++i) {
    auto result = receive(socket_.fileDescriptor(), readBuffer());
    if (std::holds_alternative<Blocked>(result)) break;
    if (const auto* error = std::get_if<WireError>(&result)) return end(error->reason);
    auto& received = std::get<Received>(result);
    if (received.bytes == 0) return end(reader_.isInsideFrame() ? "it closed in the middle of a message" : "it closed the connection");
    const auto bytes = std::span<const std::byte>(readBuffer()).first(received.bytes);
    if (!accept(std::move(received), bytes)) return;
    newFrame = dispatch() || newFrame;
  }
  updateStallTimer(newFrame);
}

bool Channel::accept(Received received, std::span<const std::byte> bytes) {
  if (!hasCredentials_) {
    if (!received.credentials) {
      end("its first message came without credentials");
      return false;
    }
    credentials_ = *received.credentials;
    credentials_.asid = auditSession(credentials_.pid);
    hasCredentials_ = true;
  }
  reader_.feed(bytes, std::move(received.descriptors));
  if (!reader_.holdsTooMuch()) return true;
  end("more is waiting to be received than this process takes");
  return false;
}

// Returns whether there was a frame.
bool Channel::dispatch() {
  bool any = false;
  while (isOpen() && reading_) {
    auto next = reader_.next();
    if (std::holds_alternative<std::monostate>(next)) break;
    if (const auto* error = std::get_if<WireError>(&next)) {
      end("it broke the protocol: " + error->reason);
      break;
    }
    any = true;
    dispatchOne(std::move(std::get<Frame>(next)));
  }
  return any;
}

void Channel::dispatchOne(Frame frame) {
  if (side_ == Side::Service && frame.kind == FrameKind::StatusRequest) return answerStatus();
  const bool expected =
      frame.kind == FrameKind::Hello || frame.kind == FrameKind::Message || (side_ == Side::Client && frame.kind == FrameKind::StatusReply);
  if (!expected) return end("it broke the protocol: that kind of frame is not for this end");
  // A copy: the handler may hand this channel to another owner, and so replace itself.
  if (const auto handler = frameHandler_) handler(std::move(frame));
}

void Channel::answerStatus() {
  if (outgoingBytes_ > kMaximumQueuedStatusBytes) return end("it does not read what is sent to it");
  Encoded reply;
  try {
    auto encoded = encode(valueWithObject(StatusRegistry::shared().snapshot()));
    if (const auto* error = std::get_if<WireError>(&encoded)) throw std::runtime_error(error->reason);
    reply = std::move(std::get<Encoded>(encoded));
  } catch (const std::exception& exception) {
    return end(std::string("the status could not be told: ") + exception.what());
  }
  write(OutgoingFrame::make(FrameKind::StatusReply, std::move(reply)));
}

void Channel::write(OutgoingFrame frame) {
  if (!isOpen() || writeBroken_) return;
  outgoingBytes_ += frame.bytes.size();
  if (outgoingBytes_ > kMaximumQueuedBytes) return end("it does not read what is sent to it");
  outgoing_.push_back({std::move(frame), nullptr});
  flush();
  updateInterest();
}

void Channel::afterWriting(std::function<void()> block) {
  if (!isOpen() || writeBroken_ || outgoing_.empty()) return block();
  outgoing_.push_back({{}, std::move(block)});
}

void Channel::flush() {
  while (isOpen() && !outgoing_.empty()) {
    if (auto marker = std::move(outgoing_.front().marker)) {
      outgoing_.pop_front();
      marker();
      continue;
    }
    OutgoingFrame& frame = outgoing_.front().frame;
    const auto result = transmit(socket_.fileDescriptor(), frame, !sentCredentials_);
    if (std::holds_alternative<Blocked>(result)) return;
    if (std::holds_alternative<WireError>(result)) {
      // The other end may have said something before it closed: that is read first, and then the end is found.
      writeBroken_ = true;
      ::shutdown(socket_.fileDescriptor(), SHUT_RDWR);
      for (Outgoing& dropped : std::exchange(outgoing_, {})) {
        if (dropped.marker) dropped.marker();
      }
      outgoingBytes_ = 0;
      return;
    }
    sentCredentials_ = true;
    frame.written += std::get<std::size_t>(result);
    if (frame.written < frame.bytes.size()) continue;
    outgoingBytes_ -= frame.bytes.size();
    outgoing_.pop_front();
  }
}

// A hang-up is told whether it is asked for or not, so a channel that wants nothing must not be on the loop at all.
void Channel::updateInterest() {
  const unsigned wanted = !isOpen() ? 0 : (reading_ && !readScheduled_ ? EPOLLIN : 0U) | (outgoing_.empty() ? 0U : EPOLLOUT);
  if (wanted == interest_) return;
  interest_ = wanted;
  if (wanted == 0) {
    if (const auto item = std::exchange(item_, nullptr)) item->invalidate();
  } else if (item_) {
    item_->setEvents(wanted);
  } else {
    item_ = RunLoopDescriptor::create(socket_.fileDescriptor(), wanted, [weak = weak_from_this()](unsigned events) {
      if (const auto self = weak.lock()) self->ready(events);
    });
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
  const bool waiting = side_ == Side::Service && isOpen() && reading_ && (!hadFrame_ || reader_.isInsideFrame());
  if (stallTimer_ && (newFrame || !waiting)) std::exchange(stallTimer_, nullptr)->invalidate();
  if (!waiting || stallTimer_) return;
  stallTimer_ = RunLoopTimer::create(kStallSeconds, 0, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->end("it began no message, or did not end the one that it began");
  });
  ioLoop().add(stallTimer_);
}

void Channel::end(const std::string& reason) {
  if (!isOpen()) return;
  const auto self = shared_from_this();
  const auto handler = std::exchange(endHandler_, nullptr);
  close();
  if (handler) handler(reason);
}

void Channel::close() {
  if (!isOpen()) return;
  if (const auto item = std::exchange(item_, nullptr)) item->invalidate();
  if (const auto timer = std::exchange(stallTimer_, nullptr)) timer->invalidate();
  socket_.closeFile();
  interest_ = 0;
  reader_ = {};
  frameHandler_ = nullptr;
  endHandler_ = nullptr;
  for (Outgoing& dropped : std::exchange(outgoing_, {})) {
    if (dropped.marker) dropped.marker();
  }
  if (const auto handler = std::exchange(closedHandler_, nullptr)) handler();
}

}  // namespace platform::xpc
