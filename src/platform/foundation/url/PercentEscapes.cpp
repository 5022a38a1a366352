#include "platform/foundation/url/PercentEscapes.h"

#include "platform/foundation/text/ASCII.h"
#include "platform/foundation/url/URLCharacters.h"

namespace platform {

bool beginsWithEscape(std::string_view text) {
  return text.size() >= 3 && text[0] == '%' && hexDigitValue(text[1]) >= 0 && hexDigitValue(text[2]) >= 0;
}

void appendEscape(std::string& out, char byte) {
  const auto value = static_cast<unsigned char>(byte);
  out += '%';
  out += kUpperHexDigits[value >> 4U];
  out += kUpperHexDigits[value & 0x0FU];
}

std::string stringByAddingPercentEscapes(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (isLegalInURL(c)) {
      out += c;
    } else {
      appendEscape(out, c);
    }
  }
  return out;
}

std::string stringByReplacingPercentEscapes(std::string_view text, bool* ok) {
  if (ok != nullptr) *ok = true;
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const std::size_t plain = std::min(text.find('%'), text.size());
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    if (!beginsWithEscape(text)) {
      if (ok != nullptr) *ok = false;
      return {};
    }
    out += static_cast<char>(hexDigitValue(text[1]) * 16 + hexDigitValue(text[2]));
    text.remove_prefix(3);
  }
  return out;
}

}  // namespace platform
