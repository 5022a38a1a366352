#include <algorithm>
#include <bit>
#include <exception>
#include <utility>

#include "platform/xpc/value/WireFormat.h"

namespace platform::xpc {

namespace {

/// Leaves the recursion at the first fault; never leaves this file.
struct Malformed : std::exception {
  explicit Malformed(const char* text) : reason(text) {}
  [[nodiscard]] const char* what() const noexcept override { return reason; }
  const char* reason;
};

/// The fewest bytes that an array's element and a dictionary's entry take, so that a count can be refused before anything is allocated for
/// it.
constexpr std::size_t kSmallestElement = 1;
constexpr std::size_t kSmallestEntry = 4 + kSmallestElement;

class Decoder {
 public:
  Decoder(std::span<const std::byte> bytes, std::vector<FileHandle> descriptors) : rest_(bytes), descriptors_(std::move(descriptors)) {}

  Value whole() {
    Value value = next(1);
    if (!rest_.empty()) throw Malformed("bytes follow the value");
    if (nextDescriptor_ != descriptors_.size()) throw Malformed("a descriptor belongs to no value");
    return value;
  }

 private:
  Value next(std::size_t depth) {
    if (depth > kMaximumDepth) throw Malformed("the value is nested too deeply");
    if (++elements_ > kMaximumElements) throw Malformed("there are too many values");
    switch (static_cast<Value::Kind>(byte())) {
      case Value::Kind::Null:
        return {};
      case Value::Kind::Bool:
        return boolean();
      case Value::Kind::Int64:
        return Value::int64(static_cast<std::int64_t>(number()));
      case Value::Kind::UInt64:
        return Value::uint64(number());
      case Value::Kind::Double:
        return Value::real(std::bit_cast<double>(number()));
      case Value::Kind::Date:
        return Value::date(static_cast<std::int64_t>(number()));
      case Value::Kind::Data:
        return data();
      case Value::Kind::String:
        return Value::string(text());
      case Value::Kind::UUID:
        return uuid();
      case Value::Kind::FileDescriptor:
        return Value::fileDescriptor(descriptor());
      case Value::Kind::SharedMemory: {
        const std::uint64_t size = number();
        return Value::sharedMemory({.handle = descriptor(), .size = size});
      }
      case Value::Kind::Array:
        return array(depth);
      case Value::Kind::Dictionary:
        return dictionary(depth);
    }
    throw Malformed("there is no such kind of value");
  }

  Value boolean() {
    const std::uint8_t value = byte();
    if (value > 1) throw Malformed("a boolean is neither 0 nor 1");
    return Value::boolean(value == 1);
  }

  Value data() {
    const auto content = counted();
    return Value::data(Data(content.begin(), content.end()));
  }

  Value uuid() {
    const auto content = take(16);
    platform::UUID::Bytes bytes{};
    std::ranges::transform(content, bytes.begin(), [](std::byte b) { return std::to_integer<std::uint8_t>(b); });
    return Value::uuid(bytes);
  }

  Value array(std::size_t depth) {
    const std::size_t size = count(kSmallestElement);
    Value::Array elements;
    elements.reserve(size);
    for (std::size_t i = 0; i < size; ++i) elements.push_back(next(depth + 1));
    return Value::array(std::move(elements));
  }

  Value dictionary(std::size_t depth) {
    const std::size_t size = count(kSmallestEntry);
    Value::Dictionary entries;
    for (std::size_t i = 0; i < size; ++i) {
      std::string key = text();
      // Senders that write their keys in byte order, as this side does, cost no search.
      const auto before = entries.size();
      const auto place = entries.emplace_hint(entries.end(), std::move(key), Value());
      if (entries.size() == before) throw Malformed("a key appears twice");
      place->second = next(depth + 1);
    }
    return Value::dictionary(std::move(entries));
  }

  std::span<const std::byte> take(std::size_t size) {
    if (size > rest_.size()) throw Malformed("the value is cut short");
    const auto taken = rest_.first(size);
    rest_ = rest_.subspan(size);
    return taken;
  }
  std::uint8_t byte() { return std::to_integer<std::uint8_t>(take(1).front()); }
  template <class T>
  T littleEndian() {
    T value = 0;
    unsigned shift = 0;
    for (const std::byte b : take(sizeof(T))) {
      value |= static_cast<T>(std::to_integer<T>(b) << shift);
      shift += 8;
    }
    return value;
  }
  std::uint64_t number() { return littleEndian<std::uint64_t>(); }
  std::span<const std::byte> counted() { return take(littleEndian<std::uint32_t>()); }
  std::string text() {
    const auto content = counted();
    if (std::ranges::find(content, std::byte{0}) != content.end()) throw Malformed("a text holds a NUL");
    return {reinterpret_cast<const char*>(content.data()), content.size()};
  }
  std::size_t count(std::size_t smallest) {
    const std::size_t value = littleEndian<std::uint32_t>();
    if (value > rest_.size() / smallest) throw Malformed("a count is larger than what follows");
    if (value > kMaximumElements - elements_) throw Malformed("there are too many values");
    return value;
  }
  std::shared_ptr<const FileHandle> descriptor() {
    if (nextDescriptor_ == descriptors_.size()) throw Malformed("a descriptor is missing");
    return std::make_shared<const FileHandle>(std::move(descriptors_[nextDescriptor_++]));
  }

  std::span<const std::byte> rest_;
  std::vector<FileHandle> descriptors_;
  std::size_t nextDescriptor_ = 0;
  std::size_t elements_ = 0;
};

}  // namespace

Result<Value, WireError> decode(std::span<const std::byte> bytes, std::vector<FileHandle> descriptors) {
  if (bytes.size() > kMaximumPayloadBytes) return WireError{"the value is too large"};
  if (descriptors.size() > kMaximumDescriptors) return WireError{"there are too many descriptors"};
  try {
    return Decoder(bytes, std::move(descriptors)).whole();
  } catch (const Malformed& fault) {
    return WireError{fault.reason};
  }
}

}  // namespace platform::xpc
