#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"
#include "platform/xpc/value/Value.h"

/// The bytes of a value. docs/protocol.md describes them for other languages; the bounds here hold for both directions.
/// Threads: functions of their arguments, callable anywhere.
namespace platform::xpc {

/// Bytes of one encoded value (and so of a frame's payload).
inline constexpr std::size_t kMaximumPayloadBytes = std::size_t{16} << 20U;
/// A plain value has depth 1, an array of plain values 2.
inline constexpr std::size_t kMaximumDepth = 64;
/// Values in one message, the containers and everything inside them counted. Keys are not counted.
inline constexpr std::size_t kMaximumElements = std::size_t{1} << 18U;
/// Descriptors of one message, shared memory included. The kernel takes 253 at once (unix(7), SCM_RIGHTS).
inline constexpr std::size_t kMaximumDescriptors = 64;

/// Why bytes are no value, or a value cannot become bytes.
struct WireError {
  std::string reason;
  friend bool operator==(const WireError&, const WireError&) = default;
};

/// A value as bytes and the descriptors that travel beside them, in the order in which the bytes mention them.
struct Encoded {
  std::vector<std::byte> bytes;
  std::vector<std::shared_ptr<const FileHandle>> descriptors;
};

Result<Encoded, WireError> encode(const Value& value);

/// Reads exactly one value that fills `bytes` and uses up `descriptors`; anything else is an error. Descriptors that were passed in and end
/// up in no value are closed. Never allocates more than a small multiple of `bytes`.
Result<Value, WireError> decode(std::span<const std::byte> bytes, std::vector<FileHandle> descriptors);

}  // namespace platform::xpc
