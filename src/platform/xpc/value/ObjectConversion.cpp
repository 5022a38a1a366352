#include "platform/xpc/value/ObjectConversion.h"

#include <cmath>
#include <limits>
#include <utility>

#include "platform/foundation/value/Dictionary.h"

namespace platform::xpc {

namespace {

constexpr double kNanosecondsPerSecond = 1e9;

std::int64_t nanoseconds(Date date) {
  const double wanted = std::round(date.timeIntervalSince1970 * kNanosecondsPerSecond);
  // 2^63 and beyond, and what is no number, have no nanoseconds; the nearest that have are taken.
  constexpr double kBeyond = 9223372036854775808.0;
  if (std::isnan(wanted)) return 0;
  if (wanted >= kBeyond) return std::numeric_limits<std::int64_t>::max();
  if (wanted < -kBeyond) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(wanted);
}

Value valueWithNumber(const Object& number) {
  switch (number.numberType()) {
    case NumberType::Bool:
      return Value::boolean(number.boolValue());
    case NumberType::UnsignedLongLong:
      return Value::uint64(number.unsignedLongLongValue());
    case NumberType::Float:
    case NumberType::Double:
      return Value::real(number.doubleValue());
    case NumberType::Char:
    case NumberType::Short:
    case NumberType::Int:
    case NumberType::LongLong:
      break;
  }
  return Value::int64(number.longLongValue());
}

Value valueWithArray(const Array& elements) {
  Value::Array values;
  values.reserve(elements.size());
  for (const Object& element : elements) values.push_back(valueWithObject(element));
  return Value::array(std::move(values));
}

Value valueWithDictionary(const Dictionary& entries) {
  Value::Dictionary values;
  for (const auto& [key, entry] : entries) values.emplace_hint(values.end(), key, valueWithObject(entry));
  return Value::dictionary(std::move(values));
}

/// Inside containers, what no object can hold becomes null, so that positions and keys stay.
Object element(const Value& value) {
  Object object = objectWithValue(value);
  return object.isNil() ? Object::null() : object;
}

Object objectWithArray(const Value::Array& values) {
  Array elements;
  elements.reserve(values.size());
  for (const Value& value : values) elements.push_back(element(value));
  return Object(std::move(elements));
}

Object objectWithDictionary(const Value::Dictionary& values) {
  Dictionary entries;
  for (const auto& [key, value] : values) entries.emplace_hint(entries.end(), key, element(value));
  return Object(std::move(entries));
}

}  // namespace

Value valueWithObject(const Object& object) {
  switch (object.kind()) {
    case Object::Kind::Nil:
    case Object::Kind::Null:
      return {};
    case Object::Kind::Number:
      return valueWithNumber(object);
    case Object::Kind::String:
      return Value::string(object.stringValue());
    case Object::Kind::Data:
      return Value::data(object.dataValue());
    case Object::Kind::Date:
      return Value::date(nanoseconds(object.dateValue()));
    case Object::Kind::UUID:
      return Value::uuid(object.uuidValue().bytes());
    case Object::Kind::FileHandle:
      return Value::fileDescriptor(object.fileHandleValue());
    case Object::Kind::Array:
      return valueWithArray(object.arrayValue());
    case Object::Kind::Dictionary:
      return valueWithDictionary(object.dictionaryValue());
  }
  return {};
}

Object objectWithValue(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::Null:
      return Object::null();
    case Value::Kind::Bool:
      return Object::numberWithBool(value.boolValue());
    case Value::Kind::Int64:
      return Object::numberWithLongLong(value.int64Value());
    case Value::Kind::UInt64:
      return Object::numberWithUnsignedLongLong(value.uint64Value());
    case Value::Kind::Double:
      return Object::numberWithDouble(value.doubleValue());
    case Value::Kind::Date:
      return Object(Date{static_cast<double>(value.dateValue()) / kNanosecondsPerSecond});
    case Value::Kind::Data:
      return Object(value.dataValue());
    case Value::Kind::String:
      return Object(value.stringValue());
    case Value::Kind::UUID:
      return Object(platform::UUID(value.uuidValue()));
    case Value::Kind::FileDescriptor:
      return Object(value.fileDescriptorValue());
    case Value::Kind::SharedMemory:
      return {};
    case Value::Kind::Array:
      return objectWithArray(value.arrayValue());
    case Value::Kind::Dictionary:
      return objectWithDictionary(value.dictionaryValue());
  }
  return {};
}

}  // namespace platform::xpc
