#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"
#include "platform/xpc/channel/ReceiveBudget.h"
#include "platform/xpc/value/WireFormat.h"

// Internal to the channel: how messages are cut out of the byte stream. A frame is a header of eight bytes (payload length, kind, version,
// number of descriptors) and the payload; its descriptors arrive with its first byte. docs/protocol.md has the layout.
namespace platform::xpc {

enum class FrameKind : std::uint8_t {
  /// Says "I am here" with the credentials, and nothing else.
  Hello = 1,
  StatusRequest = 2,
  StatusReply = 3,
  Message = 4,
};

inline constexpr std::size_t kHeaderBytes = 8;
inline constexpr std::uint8_t kProtocolVersion = 1;

struct Frame {
  FrameKind kind = FrameKind::Hello;
  std::vector<std::byte> payload;
  std::vector<FileHandle> descriptors;
  ReceiveBudget budget;
};

std::array<std::byte, kHeaderBytes> frameHeader(FrameKind kind, std::size_t payloadBytes, std::size_t descriptors);

/// Turns what arrives into frames, however it is cut. After an error it stays in error.
/// Threads: one at a time.
class FrameReader {
 public:
  /// Of a process's bytes, on whose share they are counted.
  explicit FrameReader(pid_t sender = 0) : sender_(sender) {}
  /// Bytes in the order of their arrival, with the descriptors that came with them.
  void feed(std::span<const std::byte> bytes, std::vector<FileHandle> descriptors);
  /// The next complete frame; nothing while there is none; what is wrong with the stream.
  Result<std::optional<Frame>, WireError> next();
  /// Whether a frame has begun and not ended.
  [[nodiscard]] bool isInsideFrame() const { return buffer_.size() > begin_; }
  /// Whether this connection is to be closed because too much is held (ReceiveBudget).
  [[nodiscard]] bool holdsTooMuch() const;

 private:
  struct Header {
    FrameKind kind;
    std::size_t payloadBytes;
    std::size_t descriptors;
  };
  Result<Header, WireError> readHeader() const;
  WireError fail(std::string reason);
  Frame cut(const Header& header);
  void account() { budget_ = ReceiveBudget(sender_, descriptors_.size(), buffer_.size() - begin_); }

  pid_t sender_;
  std::vector<std::byte> buffer_;
  std::size_t begin_ = 0;
  std::deque<FileHandle> descriptors_;
  ReceiveBudget budget_;
  std::optional<WireError> error_;
};

}  // namespace platform::xpc
