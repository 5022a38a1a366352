#pragma once

#include <cstddef>
#include <string_view>

namespace platform {

/// Reads the first character of `text` as UTF-8 (RFC 3629: shortest form only, no surrogates, nothing above U+10FFFF). Returns its length
/// in bytes, or 0 (and leaves `character` alone) when `text` is empty or does not begin with a complete character.
std::size_t utf8Decode(std::string_view text, char32_t& character);

/// Whether the whole of `text` is UTF-8.
bool isUTF8(std::string_view text);

}  // namespace platform
