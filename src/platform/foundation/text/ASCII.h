#pragma once

#include <algorithm>
#include <string>
#include <string_view>

/// Letters, digits and blanks of ASCII and nothing else: what protocols and file formats mean by them, whatever the locale. Functions of
/// their arguments.
namespace platform {

constexpr bool isASCIILetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
constexpr bool isASCIIDigit(char c) { return c >= '0' && c <= '9'; }

constexpr char asciiLowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
inline std::string asciiLowered(std::string_view text) {
  std::string lowered(text);
  std::ranges::transform(lowered, lowered.begin(), [](char c) { return asciiLowered(c); });
  return lowered;
}
constexpr bool equalIgnoringASCIICase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) { return asciiLowered(x) == asciiLowered(y); });
}

/// `text` without those of `blanks` at its two ends.
constexpr std::string_view trimmed(std::string_view text, std::string_view blanks = " \t") {
  const auto first = text.find_first_not_of(blanks);
  return first == std::string_view::npos ? std::string_view() : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// The value of a hexadecimal digit; -1 for another character.
constexpr int hexDigitValue(char c) {
  if (isASCIIDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
constexpr std::string_view kUpperHexDigits = "0123456789ABCDEF";
constexpr std::string_view kLowerHexDigits = "0123456789abcdef";

}  // namespace platform
