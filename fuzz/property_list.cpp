// Any bytes are a property list, as XML or binary, or a PropertyListError. What is read can be written, and is then the same again. Not
// written is only what has grown beyond the bound on the way: a text or an array that a binary list shares, and escapes.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/formats/PropertyListText.h"
#include "platform/foundation/value/Dictionary.h"

namespace {

using platform::Object;

void require(bool holds) {
  if (!holds) std::abort();
}

/// `value` as an application would store it, with its dates in whole seconds. `storable` becomes false when something in it has no place in
/// XML.
Object stored(const Object& value, bool& storable) {
  switch (value.kind()) {
    case Object::Kind::Date:
      storable = storable && platform::propertyListDateText(value.dateValue());
      return platform::Date{std::floor(value.dateValue().timeIntervalSince1970)};
    case Object::Kind::Number:
      storable = storable && (!value.numberDigits().empty() || std::isfinite(value.doubleValue()));
      return value;
    case Object::Kind::Array: {
      platform::Array array;
      array.reserve(value.count());
      for (const Object& each : value.arrayValue()) array.push_back(stored(each, storable));
      return array;
    }
    case Object::Kind::Dictionary: {
      platform::Dictionary dictionary;
      dictionary.reserve(value.count());
      for (const auto& [key, each] : value.dictionaryValue()) {
        storable = storable && platform::isPropertyListText(key);
        dictionary.emplace(key, stored(each, storable));
      }
      return dictionary;
    }
    case Object::Kind::String:
      storable = storable && platform::isPropertyListText(value.stringView());
      return value;
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
  bool storable = true;
  const Object expected = stored(value, storable);
  require(valueOf(value) == (storable ? std::optional(expected) : std::nullopt));
  std::string written;
  try {
    written = platform::writePropertyList(value);
  } catch (const platform::PropertyListError& error) {
    // Digits of any length have no place beside what only the binary form holds.
    require(error.kind() == platform::PropertyListError::Kind::TooLarge || !storable);
    return 0;
  }
  require(platform::readPropertyList(written) == value);
  return 0;
}
