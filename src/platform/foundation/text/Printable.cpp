#include "platform/foundation/text/Printable.h"

#include <algorithm>

#include "platform/foundation/text/UTF8.h"

namespace platform {

namespace {

/// C0, DEL and C1 of Unicode.
bool isControl(char32_t character) { return character < 0x20 || (character >= 0x7F && character < 0xA0); }

void putOctal(std::string& out, unsigned char byte) {
  out += '\\';
  for (int shift = 6; shift >= 0; shift -= 3) out += static_cast<char>('0' + ((byte >> shift) & 7));
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    char32_t character = 0;
    const std::size_t known = utf8Decode(text, character);
    const std::size_t length = std::max<std::size_t>(known, 1);
    if (known == 0 || isControl(character)) {
      for (const char byte : text.substr(0, length)) putOctal(out, static_cast<unsigned char>(byte));
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return out;
}

}  // namespace platform
