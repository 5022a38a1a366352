#pragma once

#include <string_view>

#include "platform/foundation/text/ASCII.h"

namespace platform {

/// Whether a URL may hold `c` as itself: the unreserved and reserved characters of RFC 2396, section 2. '%', '#', '[' and ']' have a place
/// in a URL only where its syntax puts them and so are not among them.
inline bool isLegalInURL(char c) {
  return isASCIILetter(c) || isASCIIDigit(c) || (c != '\0' && std::string_view("-_.!~*'();/?:@&=+$,").find(c) != std::string_view::npos);
}

}  // namespace platform
