#include <bit>
#include <cstring>
#include <exception>
#include <utility>

#include "platform/xpc/value/WireFormat.h"

namespace platform::xpc {

namespace {

/// Leaves the recursion when a bound is passed; never leaves this file.
struct BoundPassed : std::exception {
  explicit BoundPassed(const char* text) : reason(text) {}
  [[nodiscard]] const char* what() const noexcept override { return reason; }
  const char* reason;
};

class Encoder {
 public:
  void put(const Value& value, std::size_t depth) {
    if (depth > kMaximumDepth) throw BoundPassed("the message is nested too deeply");
    if (++elements_ > kMaximumElements) throw BoundPassed("the message holds too many values");
    byte(static_cast<std::uint8_t>(value.kind()));
    putContent(value, depth);
    if (result_.bytes.size() > kMaximumPayloadBytes) throw BoundPassed("the message is too large");
  }
  Encoded take() { return std::move(result_); }

 private:
  void putContent(const Value& value, std::size_t depth) {
    switch (value.kind()) {
      case Value::Kind::Null:
        return;
      case Value::Kind::Bool:
        return byte(value.boolValue() ? 1 : 0);
      case Value::Kind::Int64:
        return number(static_cast<std::uint64_t>(value.int64Value()));
      case Value::Kind::UInt64:
        return number(value.uint64Value());
      case Value::Kind::Double:
        return number(std::bit_cast<std::uint64_t>(value.doubleValue()));
      case Value::Kind::Date:
        return number(static_cast<std::uint64_t>(value.dateValue()));
      case Value::Kind::Data:
        return counted(value.dataValue().data(), value.dataValue().size());
      case Value::Kind::String:
        return counted(value.stringValue().data(), value.stringValue().size());
      case Value::Kind::UUID:
        return bytes(value.uuidValue().data(), value.uuidValue().size());
      case Value::Kind::FileDescriptor:
        return descriptor(value.fileDescriptorValue());
      case Value::Kind::SharedMemory:
        number(value.sharedMemoryValue().size);
        return descriptor(value.sharedMemoryValue().handle);
      case Value::Kind::Array:
        count(value.arrayValue().size());
        for (const Value& element : value.arrayValue()) put(element, depth + 1);
        return;
      case Value::Kind::Dictionary:
        count(value.dictionaryValue().size());
        for (const auto& [key, entry] : value.dictionaryValue()) {
          counted(key.data(), key.size());
          put(entry, depth + 1);
        }
        return;
    }
  }

  void byte(std::uint8_t value) { result_.bytes.push_back(static_cast<std::byte>(value)); }
  void number(std::uint64_t value) {
    for (unsigned shift = 0; shift < 64; shift += 8) byte(static_cast<std::uint8_t>(value >> shift));
  }
  void count(std::size_t value) {
    // A larger count passes a bound anyway; checked first so that it never wraps.
    if (value > kMaximumPayloadBytes) throw BoundPassed("the message is too large");
    for (unsigned shift = 0; shift < 32; shift += 8) byte(static_cast<std::uint8_t>(value >> shift));
  }
  void bytes(const void* source, std::size_t size) {
    const auto* first = static_cast<const std::byte*>(source);
    result_.bytes.insert(result_.bytes.end(), first, first + size);
  }
  void counted(const void* source, std::size_t size) {
    if (size > kMaximumPayloadBytes - result_.bytes.size()) throw BoundPassed("the message is too large");
    count(size);
    bytes(source, size);
  }
  void descriptor(const std::shared_ptr<const FileHandle>& handle) {
    if (result_.descriptors.size() == kMaximumDescriptors) throw BoundPassed("the message holds too many descriptors");
    result_.descriptors.push_back(handle);
  }

  Encoded result_;
  std::size_t elements_ = 0;
};

}  // namespace

Result<Encoded, WireError> encode(const Value& value) {
  Encoder encoder;
  try {
    encoder.put(value, 1);
  } catch (const BoundPassed& passed) {
    return WireError{passed.reason};
  }
  return encoder.take();
}

}  // namespace platform::xpc
