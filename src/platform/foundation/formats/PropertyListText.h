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

/// "2026-11-21T08:38:00Z", rounded down to the whole second; nullopt outside the years 1 to 9999.
std::optional<std::string> propertyListDateText(Date date);
/// The reverse; nullopt for another form or no such day.
std::optional<Date> propertyListDate(std::string_view text);

/// The bytes of Base64 with blanks and line ends anywhere; nullopt for anything else that is wrong.
std::optional<Data> propertyListData(std::string_view text);

}  // namespace platform
