#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/value/Object.h"

namespace platform {

/// The bounds that readers and writers share: a list that one of them lets pass is never too large for another. Counts the values of one
/// list. Throws PropertyListError.
class PropertyListBounds {
 public:
  /// One more value.
  void count() { count(1); }
  void count(std::size_t values) {
    values_ += values;
    if (values_ > kPropertyListMaximumCount) refuse("too many values");
  }
  /// The key of a value. Each dictionary has its keys to itself, also where a binary list has them once.
  void key(std::size_t bytes) {
    constexpr std::size_t kAllAtMost = 4 * kPropertyListMaximumSize;
    keyBytes_ += bytes;
    if (keyBytes_ > kAllAtMost) refuse("too long keys too often");
  }
  /// A container with `around` others around it.
  static void enter(std::size_t around) {
    if (around >= static_cast<std::size_t>(kPropertyListMaximumDepth)) refuse("nested too deeply");
  }
  static void size(std::size_t bytes) {
    if (bytes > kPropertyListMaximumSize) refuse("larger than a property list may be");
  }
  [[noreturn]] static void refuse(const std::string& why) { throw PropertyListError(why, PropertyListError::Kind::TooLarge); }

 private:
  std::size_t values_ = 0;
  std::size_t keyBytes_ = 0;
};

/// Nullopt when XML cannot hold the value as it stands, or it would be too large in it. `spacious`: with line ends and indentation.
std::optional<std::string> writeXMLPropertyList(const Object& value, bool spacious);
std::string writeBinaryPropertyList(const Object& value);

}  // namespace platform
