#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/foundation/value/Object.h"

namespace platform {

// JSON (RFC 8259) as text and as values. Threads: all functions may be called on any thread.

/// Containers inside one another that a text may hold.
inline constexpr int kJSONMaximumDepth = 512;

/// The bytes are no JSON text with an object or an array at its top. `what()` says why; it holds nothing of the text.
class JSONError : public std::runtime_error {
 public:
  JSONError(const std::string& reason, std::size_t offset) : std::runtime_error(reason), offset_(offset) {}

  /// The byte at which reading stopped, from 0.
  [[nodiscard]] std::size_t offset() const noexcept { return offset_; }

 private:
  std::size_t offset_;
};

/// Reads a JSON text. Integers become LongLong, those above 2^63-1 UnsignedLongLong, those that do not fit 64 bits and all numbers with a
/// fraction or an exponent Double; true and false become Bool. Of equal keys in one object the last counts. A byte order mark at the
/// beginning is skipped.
///
/// Takes hostile bytes. Throws JSONError for everything that is not wholly a JSON text: a scalar at the top, text behind the end (also
/// behind a NUL), text that is not UTF-8, an escaped surrogate without its partner, containers nested deeper than kJSONMaximumDepth, a
/// number beyond the range of a double, 4 GiB or more.
Object readJSON(std::string_view text);

/// `object` as JSON text without blanks. Nil and null are written as null; integers, unsigned integers, floating-point numbers
/// and booleans stay what they are. Throws Exception(NSInvalidArgumentException) for what JSON cannot hold: text or a key that is not
/// UTF-8, a number that is not finite, data, a date, a UUID, a file handle.
std::string jsonText(const Object& object);

/// The same for people and for the wire: one member or element a line, two blanks more for each level. Throws the same, and also when
/// `object` is neither an array nor a dictionary.
std::string prettyJSONText(const Object& object);

}  // namespace platform
