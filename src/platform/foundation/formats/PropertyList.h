#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/foundation/value/Object.h"

namespace platform {

// Property lists: numbers, text, data, dates, arrays and dictionaries as a file holds them.
//
// Both readers take hostile bytes: size, nesting and number of values are bounded, nothing recurses further than the nesting bound. The
// bounds are the same for reading and for writing, XML and binary, so that what is written is read again, and what was read can be written
// again unchanged, unless its text takes more room than the bound in either form. Numbers read are Bool, LongLong (UnsignedLongLong above
// 2^63-1), Double, and the digits of what is beyond these.
//
// Threads: all functions may be called on any thread.

inline constexpr std::size_t kPropertyListMaximumSize = 16U << 20U;
/// Containers inside one another.
inline constexpr int kPropertyListMaximumDepth = 128;
/// Values in one list, keys not counted, those of shared parts counted wherever they appear.
inline constexpr std::size_t kPropertyListMaximumCount = 1'000'000;

/// The bytes are no property list, or it is beyond one of the bounds. `what()` says why.
class PropertyListError : public std::runtime_error {
 public:
  enum class Kind { Malformed, TooLarge };
  explicit PropertyListError(const std::string& why, Kind kind = Kind::Malformed) : std::runtime_error(why), kind_(kind) {}
  [[nodiscard]] Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

/// Reads an XML or binary property list. XML may be UTF-8, UTF-16 or declared ISO-8859-1. Throws PropertyListError.
Object readPropertyList(std::string_view bytes);
Object readXMLPropertyList(std::string_view text);
Object readBinaryPropertyList(std::string_view bytes);

/// The value as XML; as binary where XML cannot hold it as it stands (fractions of a second and characters that others wrote in binary) or
/// would be too large for it. Takes what `propertyListValue` or a reader returned; throws PropertyListError when it is beyond a bound.
std::string writePropertyList(const Object& value);

/// The value as it would be read back: numbers with the type codes named above, dates in whole seconds. Throws
/// Exception(NSInvalidArgumentException), which names the key, for what shall not come into a property list: nil, null, UUIDs, file
/// handles, numbers and dates that are not finite, dates outside the years 1 to 9999, text (keys too) that is not UTF-8 or has characters
/// that XML 1.0 does not allow (section 2.2), and nesting beyond the bound.
Object propertyListValue(const Object& value);
/// The same for the text of a key.
void requirePropertyListText(std::string_view text);

}  // namespace platform
