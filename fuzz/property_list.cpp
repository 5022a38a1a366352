// Any bytes are a property list, as XML or binary, or a PropertyListError. What is read can be written, and is then the same again but for
// the fractions of its dates' seconds, which have no place in a file. Not written is only what has grown beyond the bound on the way: a
// text or an array that a binary list shares, and escapes.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/value/Dictionary.h"

namespace {

using platform::Object;

void require(bool holds) {
  if (!holds) std::abort();
}

/// `value` with its dates in whole seconds. `finite` becomes false when a number in it is not.
Object inWholeSeconds(const Object& value, bool& finite) {
  switch (value.kind()) {
    case Object::Kind::Date:
      return platform::Date{std::floor(value.dateValue().timeIntervalSince1970)};
    case Object::Kind::Number:
      finite = finite && std::isfinite(value.doubleValue());
      return value;
    case Object::Kind::Array: {
      platform::Array array;
      array.reserve(value.count());
      for (const Object& each : value.arrayValue()) array.push_back(inWholeSeconds(each, finite));
      return array;
    }
    case Object::Kind::Dictionary: {
      platform::Dictionary dictionary;
      dictionary.reserve(value.count());
      for (const auto& [key, each] : value.dictionaryValue()) dictionary.emplace(key, inWholeSeconds(each, finite));
      return dictionary;
    }
    case Object::Kind::String:
    case Object::Kind::Data:
      return value;
    default:
      std::abort();
  }
}

std::optional<Object> valueOf(const Object& value) {
  try {
    return platform::propertyListValue(value);
  } catch (const platform::Exception& exception) {
    require(exception.name() == platform::NSInvalidArgumentException);
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Object value;
  try {
    value = platform::readPropertyList(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const platform::PropertyListError&) {
    return 0;
  }
  bool finite = true;
  const Object expected = inWholeSeconds(value, finite);
  require(valueOf(value) == (finite ? std::optional(expected) : std::nullopt));
  std::string written;
  try {
    written = platform::writePropertyList(value);
  } catch (const platform::PropertyListError&) {
    return 0;
  }
  require(platform::readPropertyList(written) == expected);
  return 0;
}
