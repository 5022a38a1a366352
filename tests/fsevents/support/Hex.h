#pragma once

#include <string>

namespace kestrine::test {

// Any bytes as one word of letters and digits, so that they fit a line. An empty text is "-".

inline std::string toHex(const std::string& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 0xFU];
  }
  return text.empty() ? "-" : text;
}

inline std::string fromHex(const std::string& text) {
  constexpr int kHexadecimal = 16;
  std::string bytes;
  if (text == "-") return bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, kHexadecimal));
  return bytes;
}

}  // namespace kestrine::test
