#include "platform/xpc/channel/SendQueue.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "platform/xpc/channel/SocketIO.h"

namespace platform::xpc {

SendQueue::Added SendQueue::add(OutgoingFrame frame) {
  const MutexLock lock(mutex_);
  if (broken_ || socket_ < 0) return Added::Done;
  const bool first = entries_.empty();
  bytes_ += frame.bytes.size();
  entries_.push_back({std::move(frame), nullptr});
  if (!first) return bytes_ > kMaximumBytes ? Added::TooMuch : Added::Done;
  while (writeSome()) continue;
  return entries_.empty() ? Added::Done : Added::Waits;
}

void SendQueue::flush() {
  for (;;) {
    std::function<void()> marker;
    {
      const MutexLock lock(mutex_);
      while (writeSome()) continue;
      if (entries_.empty() || !entries_.front().marker) return;
      marker = std::move(entries_.front().marker);
      entries_.pop_front();
    }
    marker();
  }
}

bool SendQueue::writeSome() {
  std::array<const OutgoingFrame*, kMaximumFramesAtOnce> frames;
  std::size_t count = 0;
  for (const Entry& entry : entries_) {
    // Descriptors travel with the first byte of a call.
    if (count == frames.size() || entry.marker || (count > 0 && !entry.frame.descriptors.empty())) break;
    frames[count++] = &entry.frame;
  }
  if (count == 0) return false;
  const auto result = sendSome(socket_, std::span(frames).first(count), !sentCredentials_);
  if (!result) breakOff();
  if (!result || !*result) return false;
  sentCredentials_ = true;
  std::size_t written = **result;
  while (written > 0) {
    OutgoingFrame& frame = entries_.front().frame;
    const std::size_t part = std::min(written, frame.bytes.size() - frame.written);
    frame.written += part;
    written -= part;
    if (frame.written < frame.bytes.size()) break;
    bytes_ -= frame.bytes.size();
    entries_.pop_front();
  }
  return true;
}

// The other end may have said something before it closed: that is read first, and then the end is found.
void SendQueue::breakOff() {
  broken_ = true;
  ::shutdown(socket_, SHUT_RDWR);
  std::erase_if(entries_, [](const Entry& entry) { return !entry.marker; });
  bytes_ = 0;
}

void SendQueue::afterWriting(std::function<void()> block) {
  {
    const MutexLock lock(mutex_);
    if (!entries_.empty()) {
      entries_.push_back({{}, std::move(block)});
      return;
    }
  }
  block();
}

void SendQueue::close() {
  std::deque<Entry> dropped;
  {
    const MutexLock lock(mutex_);
    socket_ = -1;
    dropped.swap(entries_);
    bytes_ = 0;
  }
  for (const Entry& entry : dropped) {
    if (entry.marker) entry.marker();
  }
}

bool SendQueue::isEmpty() const {
  const MutexLock lock(mutex_);
  return entries_.empty();
}

std::size_t SendQueue::bytes() const {
  const MutexLock lock(mutex_);
  return bytes_;
}

}  // namespace platform::xpc
