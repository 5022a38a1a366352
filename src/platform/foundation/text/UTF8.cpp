#include "platform/foundation/text/UTF8.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace platform {

namespace {

struct Form {
  unsigned char mask;     // of the lead byte: which bits tell the length
  unsigned char pattern;  // what they must be
  std::size_t length;
  char32_t smallest;  // a smaller character in this form is not in its shortest form
};

constexpr std::array<Form, 4> kForms = {{{0x80, 0x00, 1, 0}, {0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}}};

bool isSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }

/// How many bytes from the beginning are certainly ASCII: whole words of eight.
std::size_t asciiWords(std::string_view text) {
  std::size_t length = 0;
  for (std::uint64_t word = 0; length + sizeof word <= text.size(); length += sizeof word) {
    std::memcpy(&word, text.data() + length, sizeof word);
    if ((word & 0x8080808080808080U) != 0) break;
  }
  return length;
}

}  // namespace

std::size_t utf8Decode(std::string_view text, char32_t& character) {
  if (text.empty()) return 0;
  const auto lead = static_cast<unsigned char>(text[0]);
  for (const Form& form : kForms) {
    if ((lead & form.mask) != form.pattern) continue;
    if (text.size() < form.length) return 0;
    char32_t value = lead & static_cast<unsigned char>(~form.mask);
    for (std::size_t i = 1; i < form.length; ++i) {
      const auto next = static_cast<unsigned char>(text[i]);
      if ((next & 0xC0U) != 0x80U) return 0;
      value = value << 6U | (next & 0x3FU);
    }
    if (value < form.smallest || value > 0x10FFFF || isSurrogate(value)) return 0;
    character = value;
    return form.length;
  }
  return 0;
}

bool isUTF8(std::string_view text) {
  char32_t character = 0;
  while (!text.empty()) {
    text.remove_prefix(asciiWords(text));
    while (!text.empty() && static_cast<unsigned char>(text.front()) < 0x80) text.remove_prefix(1);
    if (text.empty()) return true;
    const std::size_t length = utf8Decode(text, character);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace platform
