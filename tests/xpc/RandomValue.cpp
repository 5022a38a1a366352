#include "tests/xpc/RandomValue.h"

#include <bit>

namespace kestrine::test {

using platform::xpc::Value;

std::string RandomValue::text() {
  std::string bytes(below(20), ' ');
  // Any byte but NUL: the channel does not look at the encoding.
  for (char& byte : bytes) byte = static_cast<char>(1 + below(255));
  return bytes;
}

Value RandomValue::plain() {
  switch (below(withDescriptors_ ? 11 : 9)) {
    case 0:
      return {};
    case 1:
      return Value::boolean(below(2) == 1);
    case 2:
      return Value::int64(static_cast<std::int64_t>(bits()));
    case 3:
      return Value::uint64(bits());
    case 4:
      return Value::real(std::bit_cast<double>(bits()));
    case 5:
      return Value::date(static_cast<std::int64_t>(bits()));
    case 6:
      return Value::data(platform::Data(below(40), static_cast<std::byte>(bits())));
    case 7:
      return Value::string(text());
    case 8: {
      platform::UUID::Bytes bytes{};
      for (auto& byte : bytes) byte = static_cast<std::uint8_t>(bits());
      return Value::uuid(bytes);
    }
    case 9:
      return Value::fileDescriptor(0);
    default:
      return Value::sharedMemory({.handle = Value::fileDescriptor(0).fileDescriptorValue(), .size = bits()});
  }
}

Value RandomValue::next(int depth) {
  const auto shape = depth > 0 ? below(4) : 0;
  if (shape < 2) return plain();
  if (shape == 2) {
    Value::Array elements;
    for (std::size_t count = below(5); count > 0; --count) elements.push_back(next(depth - 1));
    return Value::array(std::move(elements));
  }
  Value::Dictionary entries;
  for (std::size_t count = below(5); count > 0; --count) entries[text()] = next(depth - 1);
  return Value::dictionary(std::move(entries));
}

}  // namespace kestrine::test
