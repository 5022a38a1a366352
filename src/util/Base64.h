#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/value/Object.h"

/// Bytes and text as Base64 (RFC 4648, section 4: the standard alphabet, padded), in one line or wrapped, and back. "Nothing" where there
/// is nothing to encode or what is read is no Base64.
/// Threads: functions of their arguments, callable anywhere.
namespace kestrine {

/// Characters that are neither of the alphabet nor "=" are skipped, wherever they stand. What is left must be whole groups of four, padded
/// at the end only; then its bytes are given, and nothing when it is not, or when there are none. Bits beyond the last byte are ignored.
[[nodiscard]] std::optional<platform::Data> dataWithBase64EncodedString(std::string_view string);

/// In lines of `width` characters, rounded down to a multiple of 4, with "\r\n" between them and none after the last; in one line when
/// `width` is 0 or not less than the whole length. Nothing for no bytes. Widths 1 to 3 have no lines and are not to be passed: they throw
/// platform::Exception(NSInvalidArgumentException).
[[nodiscard]] std::optional<std::string> base64EncodedStringWithWrapWidth(std::span<const std::byte> data, std::size_t width);
/// In one line.
[[nodiscard]] std::optional<std::string> base64EncodedString(std::span<const std::byte> data);

/// The bytes that `dataWithBase64EncodedString` gives, as text. Nothing when they are not UTF-8.
[[nodiscard]] std::optional<std::string> stringWithBase64EncodedString(std::string_view string);

/// The text's UTF-8 bytes as above. Each byte that belongs to no character is encoded as U+FFFD.
[[nodiscard]] std::optional<std::string> base64EncodedStringWithWrapWidth(std::string_view string, std::size_t width);
[[nodiscard]] std::optional<std::string> base64EncodedString(std::string_view string);

/// The same as `stringWithBase64EncodedString` and `dataWithBase64EncodedString`, asked of the encoded text.
[[nodiscard]] std::optional<std::string> base64DecodedString(std::string_view string);
[[nodiscard]] std::optional<platform::Data> base64DecodedData(std::string_view string);

}  // namespace kestrine
