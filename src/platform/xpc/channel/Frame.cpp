#include "platform/xpc/channel/Frame.h"

#include <algorithm>
#include <utility>

namespace platform::xpc {

namespace {

std::size_t littleEndian(std::span<const std::byte> bytes) {
  std::size_t value = 0;
  for (std::size_t i = bytes.size(); i-- > 0;) value = (value << 8U) | std::to_integer<std::size_t>(bytes[i]);
  return value;
}

}  // namespace

std::array<std::byte, kHeaderBytes> frameHeader(FrameKind kind, std::size_t payloadBytes, std::size_t descriptors) {
  const auto at = [](std::size_t value, unsigned shift) { return static_cast<std::byte>(value >> shift); };
  return {at(payloadBytes, 0),          at(payloadBytes, 8),         at(payloadBytes, 16), at(payloadBytes, 24),
          static_cast<std::byte>(kind), std::byte{kProtocolVersion}, at(descriptors, 0),   at(descriptors, 8)};
}

void FrameReader::feed(std::span<const std::byte> bytes, std::vector<FileHandle> descriptors) {
  if (error_) return;
  if (begin_ > 0) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(begin_));
    begin_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
  std::ranges::move(descriptors, std::back_inserter(descriptors_));
  account();
}

bool FrameReader::holdsTooMuch() const { return ReceiveBudget::isTooMuch(sender_, budget_.descriptors(), budget_.bytes()); }

WireError FrameReader::fail(std::string reason) {
  error_ = WireError{std::move(reason)};
  buffer_ = {};
  begin_ = 0;
  descriptors_.clear();
  account();
  return *error_;
}

Result<FrameReader::Header, WireError> FrameReader::readHeader() const {
  const auto bytes = std::span(buffer_).subspan(begin_);
  const auto kind = std::to_integer<std::uint8_t>(bytes[4]);
  const Header header{static_cast<FrameKind>(kind), littleEndian(bytes.subspan(0, 4)), littleEndian(bytes.subspan(6, 2))};
  if (std::to_integer<std::uint8_t>(bytes[5]) != kProtocolVersion) return WireError{"the frame has another protocol version"};
  if (kind < static_cast<std::uint8_t>(FrameKind::Hello) || kind > static_cast<std::uint8_t>(FrameKind::Message)) {
    return WireError{"there is no such kind of frame"};
  }
  if (header.payloadBytes > kMaximumPayloadBytes) return WireError{"the frame is too large"};
  if (header.descriptors > kMaximumDescriptors) return WireError{"the frame has too many descriptors"};
  const bool carriesValue = header.kind == FrameKind::Message || header.kind == FrameKind::StatusReply;
  if (!carriesValue && (header.payloadBytes > 0 || header.descriptors > 0)) return WireError{"the frame's kind has no payload"};
  return header;
}

Frame FrameReader::cut(const Header& header) {
  Frame frame;
  frame.kind = header.kind;
  const auto first = buffer_.begin() + static_cast<std::ptrdiff_t>(begin_ + kHeaderBytes);
  frame.payload.assign(first, first + static_cast<std::ptrdiff_t>(header.payloadBytes));
  begin_ += kHeaderBytes + header.payloadBytes;
  for (std::size_t i = 0; i < header.descriptors; ++i) {
    frame.descriptors.push_back(std::move(descriptors_.front()));
    descriptors_.pop_front();
  }
  frame.budget = ReceiveBudget(sender_, header.descriptors, header.payloadBytes);
  if (begin_ == buffer_.size()) {
    buffer_.clear();
    begin_ = 0;
    // One large message must not keep its memory for the life of the connection.
    if (buffer_.capacity() > (std::size_t{1} << 16U)) buffer_.shrink_to_fit();
  }
  account();
  return frame;
}

Result<std::optional<Frame>, WireError> FrameReader::next() {
  if (error_) return *error_;
  const std::size_t available = buffer_.size() - begin_;
  if (available < kHeaderBytes) {
    // A descriptor comes with the first byte of its frame, so none may be left between frames.
    if ((available == 0 && !descriptors_.empty()) || descriptors_.size() > kMaximumDescriptors)
      return fail("a descriptor belongs to no frame");
    return std::optional<Frame>();
  }
  const auto header = readHeader();
  if (!header) return fail(header.error().reason);
  if (available < kHeaderBytes + header->payloadBytes) {
    if (descriptors_.size() > header->descriptors) return fail("a descriptor belongs to no frame");
    return std::optional<Frame>();
  }
  if (descriptors_.size() < header->descriptors) return fail("a frame's descriptors are missing");
  return std::optional(cut(*header));
}

}  // namespace platform::xpc
