#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/foundation/value/Object.h"

namespace kestrine::test {

inline platform::Data bytesOf(std::string_view text) {
  platform::Data bytes;
  for (const char character : text) bytes.push_back(static_cast<std::byte>(character));
  return bytes;
}

/// The encoding bit by bit, as RFC 4648 section 4 describes it: slow, and nothing in common with a library.
inline std::string encodedByHand(const platform::Data& bytes) {
  std::string bits;
  for (const std::byte byte : bytes) {
    for (int bit = 7; bit >= 0; --bit) bits += (std::to_integer<int>(byte) >> bit) % 2 == 1 ? '1' : '0';
  }
  std::string text;
  for (std::size_t begin = 0; begin < bits.size(); begin += 6) {
    std::string group = bits.substr(begin, 6);
    group.resize(6, '0');
    const int value = std::stoi(group, nullptr, 2);
    if (value < 26) text += static_cast<char>('A' + value);
    if (value >= 26 && value < 52) text += static_cast<char>('a' + value - 26);
    if (value >= 52 && value < 62) text += static_cast<char>('0' + value - 52);
    if (value == 62) text += '+';
    if (value == 63) text += '/';
  }
  while (text.size() % 4 != 0) text += '=';
  return text;
}

}  // namespace kestrine::test
