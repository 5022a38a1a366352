#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// Base64 (RFC 4648, section 4: the standard alphabet, padded). Functions of their arguments.
inline constexpr std::string_view kBase64Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
inline constexpr char kBase64Padding = '=';

/// In one line; empty for no bytes.
std::string base64Text(std::span<const std::byte> bytes);

/// The bytes of whole groups of four, padded at the end only; nullopt for any other text, one with blanks too. Bits beyond the last byte
/// are ignored.
std::optional<std::vector<std::byte>> base64Bytes(std::string_view text);

}  // namespace platform
