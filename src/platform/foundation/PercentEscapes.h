#pragma once

#include <string>
#include <string_view>

namespace platform {

/// The value of a hexadecimal digit; -1 for another character.
int hexDigitValue(char c);

/// Whether `text` begins with '%' and two hexadecimal digits.
bool beginsWithEscape(std::string_view text);

/// Appends "%XX" (RFC 3986, section 2.1).
void appendEscape(std::string& out, char byte);

}  // namespace platform
