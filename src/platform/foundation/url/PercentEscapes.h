#pragma once

#include <string>
#include <string_view>

namespace platform {

/// Whether `text` begins with '%' and two hexadecimal digits.
bool beginsWithEscape(std::string_view text);

/// Appends "%XX" (RFC 3986, section 2.1).
void appendEscape(std::string& out, char byte);

/// Percent-escapes (RFC 3986, section 2.1) every byte that a URL may not hold, '%' included; what is legal in a URL stays.
std::string stringByAddingPercentEscapes(std::string_view text);
/// Resolves percent escapes; nullopt-like failure (a bad escape) gives the text "" and false in `ok` when `ok` is not null.
std::string stringByReplacingPercentEscapes(std::string_view text, bool* ok = nullptr);

}  // namespace platform
