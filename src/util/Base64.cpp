#include "util/Base64.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/text/Base64.h"
#include "platform/foundation/text/UTF8.h"

namespace kestrine {

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

std::string wrapped(std::string_view line, std::size_t step) {
  std::string text;
  text.reserve(line.size() + line.size() / step * kLineEnd.size());
  for (; line.size() > step; line.remove_prefix(step)) text.append(line.substr(0, step)).append(kLineEnd);
  return text.append(line);
}

/// `text` without what is neither of the alphabet nor padding.
std::string knownCharacters(std::string_view text) {
  static constexpr auto kIsKnown = [] {
    std::array<bool, 256> known{};
    for (const char character : platform::kBase64Alphabet) known[static_cast<std::uint8_t>(character)] = true;
    known[static_cast<std::uint8_t>(platform::kBase64Padding)] = true;
    return known;
  }();
  std::string known(text.size(), '\0');
  char* end = known.data();
  for (const char character : text) {
    *end = character;
    end += static_cast<int>(kIsKnown[static_cast<std::uint8_t>(character)]);
  }
  known.resize(static_cast<std::size_t>(end - known.data()));
  return known;
}

/// `text`, which is not UTF-8, with its faults replaced.
std::string mended(std::string_view text) {
  std::string whole;
  while (!text.empty()) {
    char32_t character = 0;
    const std::size_t length = platform::utf8Decode(text, character);
    whole.append(length > 0 ? text.substr(0, length) : kReplacementCharacter);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return whole;
}

}  // namespace

std::optional<platform::Data> dataWithBase64EncodedString(std::string_view string) {
  auto data = platform::base64Bytes(string);
  if (!data) {
    const std::string known = knownCharacters(string);
    if (known.size() < string.size()) data = platform::base64Bytes(known);
  }
  return data && !data->empty() ? std::move(data) : std::nullopt;
}

std::optional<std::string> base64EncodedStringWithWrapWidth(std::span<const std::byte> data, std::size_t width) {
  if (data.empty()) return std::nullopt;
  const std::size_t step = width / 4 * 4;
  if (width > 0 && step == 0) {
    throw platform::Exception(platform::NSInvalidArgumentException, "a line of Base64 has 4 characters at least, or no end (width 0)");
  }
  std::string line = platform::base64Text(data);
  if (width == 0 || width >= line.size()) return line;
  return wrapped(line, step);
}

std::optional<std::string> base64EncodedString(std::span<const std::byte> data) { return base64EncodedStringWithWrapWidth(data, 0); }

std::optional<std::string> stringWithBase64EncodedString(std::string_view string) {
  const auto data = dataWithBase64EncodedString(string);
  if (!data) return std::nullopt;
  const std::string_view text(reinterpret_cast<const char*>(data->data()), data->size());
  if (!platform::isUTF8(text)) return std::nullopt;
  return std::string(text);
}

std::optional<std::string> base64EncodedStringWithWrapWidth(std::string_view string, std::size_t width) {
  if (platform::isUTF8(string)) return base64EncodedStringWithWrapWidth(std::as_bytes(std::span(string)), width);
  const std::string whole = mended(string);
  return base64EncodedStringWithWrapWidth(std::as_bytes(std::span(whole)), width);
}

std::optional<std::string> base64EncodedString(std::string_view string) { return base64EncodedStringWithWrapWidth(string, 0); }

std::optional<std::string> base64DecodedString(std::string_view string) { return stringWithBase64EncodedString(string); }

std::optional<platform::Data> base64DecodedData(std::string_view string) { return dataWithBase64EncodedString(string); }

}  // namespace kestrine
