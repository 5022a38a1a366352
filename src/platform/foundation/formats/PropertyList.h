#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/foundation/value/Object.h"

namespace platform {

// Property lists: numbers, text, data, dates, arrays and dictionaries as a file holds them.
//
// Both readers take hostile bytes: size, nesting and number of values are bounded, nothing recurses further than the nesting bound, and
// what is read can be written again unchanged, but for fractions of a second, unless that makes it larger than the bound: a binary list
// shares its parts, XML does not. Numbers read are Bool, LongLong (UnsignedLongLong above 2^63-1) and Double. Dates are whole seconds of
// the years 1 to 9999 when written.
//
// Threads: all functions may be called on any thread.

inline constexpr std::size_t kPropertyListMaximumSize = 16U << 20U;
/// Containers inside one another.
inline constexpr int kPropertyListMaximumDepth = 128;
/// Values in one list, those of shared parts counted wherever they appear.
inline constexpr std::size_t kPropertyListMaximumCount = 1'000'000;

/// The bytes are no property list, or the value is too large to be one. `what()` says why.
class PropertyListError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads an XML or binary property list. Throws PropertyListError.
Object readPropertyList(std::string_view bytes);
Object readXMLPropertyList(std::string_view text);
Object readBinaryPropertyList(std::string_view bytes);

/// The value as XML. Takes what `propertyListValue` or a reader returned; throws PropertyListError when it grows beyond
/// kPropertyListMaximumSize.
std::string writePropertyList(const Object& value);

/// The value as it would be read back: numbers with the type codes named above, dates in whole seconds. Throws
/// Exception(NSInvalidArgumentException) for what a property list cannot hold: nil, null, UUIDs, file handles, numbers and dates that are
/// not finite, dates outside the years 1 to 9999, text (keys too) that is not UTF-8 or has characters that XML 1.0 does not allow
/// (section 2.2), and nesting beyond the bound.
Object propertyListValue(const Object& value);
/// The same for the text of a key.
void requirePropertyListText(std::string_view text);

}  // namespace platform
