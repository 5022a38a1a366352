#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kestrine {

/// The whole of `text` as a number; nullopt for anything else (blanks, signs and trailing text included), and for what is too large.
std::optional<std::uint64_t> parseUnsigned(std::string_view text);
/// The same, also with "0x" in front.
std::optional<std::uint64_t> parseUnsignedOrHexadecimal(std::string_view text);
std::optional<std::int64_t> parseInteger(std::string_view text);
/// A finite decimal fraction.
std::optional<double> parseFraction(std::string_view text);
/// The same for a time to wait: seconds from 0 to a day.
std::optional<double> parseSeconds(std::string_view text);

}  // namespace kestrine
