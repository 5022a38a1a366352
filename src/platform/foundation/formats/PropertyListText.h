#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/value/Object.h"

namespace platform {

/// What counts as nothing between elements, and around and in values that are no text.
inline constexpr std::string_view kPropertyListBlanks = " \t\r\n";

/// Whether `text` is UTF-8 of characters that XML 1.0 can hold (section 2.2).
bool isPropertyListText(std::string_view text);
bool isPropertyListCharacter(char32_t character);
/// Appends the character as UTF-8. A surrogate becomes bytes that are not UTF-8, which the check of the whole text then refuses.
void appendCharacter(std::string& text, std::uint32_t character);

bool isASCIIText(std::string_view text);
/// UTF-16 as UTF-8; surrogates without their other half become bytes that are not UTF-8. An odd byte at the end is left out.
std::string utf8FromUTF16(std::string_view units, bool littleEndian);
/// Big-endian. Takes UTF-8.
std::string utf16FromUTF8(std::string_view text);

/// Whether a number's digits are nothing but a sign and digits.
bool isWholeNumber(std::string_view digits);
/// An integer in two's complement.
struct WideInteger {
  std::uint64_t high = 0;
  std::uint64_t low = 0;
};
/// Nullopt for what is no whole number or takes more than 128 bits.
std::optional<WideInteger> integerOf128Bits(std::string_view digits);
std::string digitsOf(WideInteger integer);

/// Dates in binary lists are counted from 2001-01-01T00:00:00Z.
inline constexpr double kPropertyListReferenceDate = 978307200;

/// "2026-11-21T08:38:00Z", rounded down to the whole second; nullopt outside the years 1 to 9999.
std::optional<std::string> propertyListDateText(Date date);
/// The reverse; nullopt for another form or no such day.
std::optional<Date> propertyListDate(std::string_view text);

/// The bytes of Base64 with blanks and line ends anywhere; nullopt for anything else that is wrong.
std::optional<Data> propertyListData(std::string_view text);

}  // namespace platform
