#include "platform/foundation/formats/PropertyList.h"

#include <cmath>
#include <cstdint>
#include <limits>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/PropertyListText.h"
#include "platform/foundation/formats/PropertyListWriters.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

[[noreturn]] void refuse(const std::string& why) { throw Exception(NSInvalidArgumentException, "a property list cannot hold " + why); }

Object integerValue(std::uint64_t value) {
  if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return Object::numberWithUnsignedLongLong(value);
  return Object::numberWithLongLong(static_cast<std::int64_t>(value));
}

Object numberValue(const Object& number) {
  if (!number.numberDigits().empty()) return number;
  const auto type = number.numberType();
  if (type == NumberType::Bool) return Object::numberWithBool(number.boolValue());
  if (type == NumberType::UnsignedLongLong) return integerValue(number.unsignedLongLongValue());
  const bool isReal = type == NumberType::Float || type == NumberType::Double;
  if (!isReal) return Object::numberWithLongLong(number.longLongValue());
  if (!std::isfinite(number.doubleValue())) refuse("a number that is not finite");
  return Object::numberWithDouble(number.doubleValue());
}

Object dateValue(Date date) {
  if (!propertyListDateText(date)) refuse("a date outside the years 1 to 9999");
  return Date{std::floor(date.timeIntervalSince1970)};
}

Object normalised(const Object& value, int depth);

/// The outermost key is the one that the caller knows.
Object normalisedUnder(const std::string& key, const Object& value, int depth) {
  try {
    return normalised(value, depth);
  } catch (const Exception& refusal) {
    if (depth > 1) throw;
    throw Exception(refusal.name(), refusal.reason() + ", under the key \"" + key + "\"");
  }
}

Object normalised(const Object& value, int depth) {
  switch (value.kind()) {
    case Object::Kind::Number:
      return numberValue(value);
    case Object::Kind::String:
      requirePropertyListText(value.stringValue());
      return value;
    case Object::Kind::Data:
      return value;
    case Object::Kind::Date:
      return dateValue(value.dateValue());
    case Object::Kind::Array: {
      if (depth == kPropertyListMaximumDepth) refuse("values nested so deeply");
      Array array;
      array.reserve(value.count());
      for (const auto& element : value.arrayValue()) array.push_back(normalised(element, depth + 1));
      return array;
    }
    case Object::Kind::Dictionary: {
      if (depth == kPropertyListMaximumDepth) refuse("values nested so deeply");
      Dictionary dictionary;
      for (const auto& [key, entry] : value.dictionaryValue()) {
        requirePropertyListText(key);
        dictionary.emplace_hint(dictionary.end(), key, normalisedUnder(key, entry, depth + 1));
      }
      return dictionary;
    }
    case Object::Kind::Nil:
      refuse("nil");
    case Object::Kind::Null:
      refuse("null");
    case Object::Kind::UUID:
      refuse("a UUID");
    case Object::Kind::FileHandle:
      refuse("a file handle");
  }
  refuse("such a value");
}

}  // namespace

Object readPropertyList(std::string_view bytes) {
  return bytes.starts_with("bplist") ? readBinaryPropertyList(bytes) : readXMLPropertyList(bytes);
}

std::string writePropertyList(const Object& value) {
  for (const bool spacious : {true, false}) {
    if (auto text = writeXMLPropertyList(value, spacious)) return *std::move(text);
  }
  return writeBinaryPropertyList(value);
}

Object propertyListValue(const Object& value) { return normalised(value, 0); }

void requirePropertyListText(std::string_view text) {
  if (!isPropertyListText(text)) refuse("text that is not UTF-8 or has characters that XML does not allow");
}

}  // namespace platform
