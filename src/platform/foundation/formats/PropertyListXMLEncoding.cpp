#include <algorithm>

#include "platform/foundation/formats/PropertyListText.h"
#include "platform/foundation/formats/PropertyListXML.h"
#include "platform/foundation/text/ASCII.h"

namespace platform {

namespace {

/// The encoding that the XML declaration names, in small letters; empty when it names none.
std::string declaredEncoding(std::string_view text) {
  constexpr std::string_view kName = "encoding";
  if (!text.starts_with("<?xml")) return {};
  const std::string_view declaration = text.substr(0, text.find("?>"));
  auto at = declaration.find(kName);
  if (at == std::string_view::npos) return {};
  at = declaration.find_first_not_of(" \t\r\n=", at + kName.size());
  if (at == std::string_view::npos || (declaration[at] != '"' && declaration[at] != '\'')) return {};
  const auto end = declaration.find(declaration[at], at + 1);
  if (end == std::string_view::npos) return {};
  std::string name(declaration.substr(at + 1, end - at - 1));
  std::ranges::transform(name, name.begin(), [](char c) { return asciiLowered(c); });
  return name;
}

/// Each byte is the character of its number.
std::string utf8FromLatin1(std::string_view text) {
  std::string converted;
  converted.reserve(text.size() + text.size() / 8);
  for (const char c : text) appendCharacter(converted, static_cast<unsigned char>(c));
  return converted;
}

}  // namespace

std::optional<std::string> utf8FromXML(std::string_view text) {
  using namespace std::string_view_literals;
  struct Beginning {
    std::string_view bytes;
    std::size_t mark;
    bool littleEndian;
  };
  static constexpr Beginning kWide[] = {{"\xFE\xFF"sv, 2, false}, {"\xFF\xFE"sv, 2, true}, {"\0<"sv, 0, false}, {"<\0"sv, 0, true}};
  for (const auto& [bytes, mark, littleEndian] : kWide) {
    if (text.starts_with(bytes)) return utf8FromUTF16(text.substr(mark), littleEndian);
  }
  const std::string encoding = declaredEncoding(text);
  if (encoding == "iso-8859-1" || encoding == "latin1" || encoding == "iso_8859-1" || encoding == "l1") return utf8FromLatin1(text);
  return std::nullopt;
}

}  // namespace platform
