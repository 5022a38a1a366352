#pragma once

#include <string_view>

// The words and lines of HTTP. What holds for any text of ASCII is in text/ASCII.h. Internal to the network room; functions of their
// arguments.
namespace platform::network {

/// Whether the text can be a method or the name of a field: a token of RFC 9110, section 5.6.2.
bool isHTTPToken(std::string_view text);

/// Whether a field with this value would be more than one line, or end early for some reader: it holds CR, LF or NUL.
bool breaksHeaderLine(std::string_view value);

/// Takes the first element off a list that is separated by commas (RFC 9110, section 5.6.1), and hands it out without the blanks around it.
/// A comma inside a quoted string separates nothing. Empty elements are handed out too.
std::string_view takeListElement(std::string_view& list);

/// What may stand around the words of a line as it came over the wire, its end included.
inline constexpr std::string_view kLineBlanks = " \t\r\n";

/// The number in "HTTP/1.1 200 OK"; 0 when there is none.
int statusInLine(std::string_view line);

}  // namespace platform::network
