#include "xpc/XPCParse.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/text/UTF8.h"
#include "platform/foundation/value/Dictionary.h"
#include "xpc/XPCUUID.h"

namespace kestrine {

namespace {

using platform::NumberType;
using platform::Object;
using platform::xpc::Value;
using Kind = Value::Kind;

constexpr double kNanosecondsPerSecond = 1000000000.0;

Object stringWithUTF8(const std::string& text) { return platform::isUTF8(text) ? Object(text) : Object(); }

/// What a reader of NUL-terminated text sees of it.
std::string terminated(const std::string& text) { return text.substr(0, text.find('\0')); }

std::int64_t nanoseconds(platform::Date date) {
  const double wanted = date.timeIntervalSince1970 * kNanosecondsPerSecond;
  constexpr double kBeyond = 9223372036854775808.0;  // 2^63
  if (std::isnan(wanted)) return 0;
  if (wanted >= kBeyond) return std::numeric_limits<std::int64_t>::max();
  if (wanted < -kBeyond) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(wanted);
}

bool isTrueBoolean(const Object& number) { return number.numberType() == NumberType::Bool && number.boolValue(); }

Value newNumber(const Object& number) {
  if (isTrueBoolean(number)) return Value::boolean(true);
  // Applications know false as the double 0, so this asks for true once more and never for false.
  if (isTrueBoolean(number)) return Value::boolean(false);
  if (number.numberType() == NumberType::UnsignedLongLong) return Value::uint64(number.unsignedLongLongValue());
  if (number.numberType() == NumberType::LongLong) return Value::int64(number.longLongValue());
  return Value::real(number.doubleValue());
}

Value newDictionary(const platform::Dictionary& entries) {
  Value::Dictionary values;
  for (const auto& [key, entry] : entries) {
    if (auto value = newXPCObject(entry)) values.insert_or_assign(terminated(key), *std::move(value));
  }
  return Value::dictionary(std::move(values));
}

Value newArray(const platform::Array& elements) {
  Value::Array values;
  for (const Object& element : elements) {
    if (auto value = newXPCObject(element)) values.push_back(*std::move(value));
  }
  return Value::array(std::move(values));
}

std::optional<Value> newFileDescriptor(const platform::FileHandle& handle) {
  if (!handle.isOpen()) return std::nullopt;
  return Value::fileDescriptor(handle.fileDescriptor());
}

}  // namespace

Object objectWithXPCObject(const Value& object) {
  const Kind kind = object.kind();
  if (kind == Kind::Dictionary) return dictionaryWithContentsOfXPCObject(object);
  if (kind == Kind::Array) return arrayWithContentsOfXPCObject(object);
  if (kind == Kind::Date) return dateWithXPCObject(object);
  if (kind == Kind::Data || kind == Kind::SharedMemory) return dataWithXPCObject(object);
  if (kind == Kind::String) return stringWithXPCObject(object);
  if (kind == Kind::UUID) return XPCUUID::uuidWithXPCObject(object).uuidRef();
  if (kind == Kind::FileDescriptor) return fileHandleWithXPCObject(object);
  if (kind == Kind::Bool || kind == Kind::UInt64 || kind == Kind::Int64 || kind == Kind::Double) return numberWithXPCObject(object);
  return {};
}

Object dictionaryWithContentsOfXPCObject(const Value& object) {
  if (object.kind() != Kind::Dictionary) return {};
  platform::Dictionary entries;
  for (const auto& [text, value] : object.dictionaryValue()) {
    const Object key = stringWithUTF8(text);
    Object entry = objectWithXPCObject(value);
    if (key.isNil() || entry.isNil()) continue;
    entries.emplace_hint(entries.end(), key.stringValue(), std::move(entry));
  }
  return Object(std::move(entries));
}

Object arrayWithContentsOfXPCObject(const Value& object) {
  if (object.kind() != Kind::Array) return {};
  platform::Array elements;
  const Value::Array& values = object.arrayValue();
  for (std::size_t index = 0; index < values.size(); ++index) {
    Object element = objectWithXPCObject(values[index]);
    if (element.isNil()) continue;
    if (index > elements.size()) {
      throw platform::Exception(platform::NSRangeException, "an element cannot be inserted at index " + std::to_string(index) +
                                                                " of an array of " + std::to_string(elements.size()));
    }
    elements.push_back(std::move(element));
  }
  return Object(std::move(elements));
}

Object dateWithXPCObject(const Value& object) {
  if (object.kind() != Kind::Date) return {};
  return Object(platform::Date{static_cast<double>(object.dateValue()) / kNanosecondsPerSecond});
}

Object dataWithXPCObject(const Value& object) { return object.kind() == Kind::Data ? Object(object.dataValue()) : Object(); }

Object stringWithXPCObject(const Value& object) { return object.kind() == Kind::String ? stringWithUTF8(object.stringValue()) : Object(); }

Object numberWithXPCObject(const Value& object) {
  switch (object.kind()) {
    case Kind::Bool:
      return Object::numberWithBool(object.boolValue());
    case Kind::UInt64:
      return Object::numberWithUnsignedLongLong(object.uint64Value());
    case Kind::Int64:
      return Object::numberWithLongLong(object.int64Value());
    case Kind::Double:
      return Object::numberWithDouble(object.doubleValue());
    default:
      return {};
  }
}

Object fileHandleWithXPCObject(const Value& object) {
  if (object.kind() != Kind::FileDescriptor) return {};
  return Object(std::make_shared<const platform::FileHandle>(object.duplicateFileDescriptor()));
}

std::optional<Value> newXPCObject(const Object& object) {
  switch (object.kind()) {
    case Object::Kind::Nil:
    case Object::Kind::Null:
      return std::nullopt;
    case Object::Kind::Number:
      return newNumber(object);
    case Object::Kind::String:
      return Value::string(terminated(object.stringValue()));
    case Object::Kind::Data:
      return Value::data(object.dataValue());
    case Object::Kind::Date:
      return Value::date(nanoseconds(object.dateValue()));
    case Object::Kind::UUID:
      return XPCUUID(object.uuidValue()).newXPCObject();
    case Object::Kind::FileHandle:
      return newFileDescriptor(*object.fileHandleValue());
    case Object::Kind::Array:
      return newArray(object.arrayValue());
    case Object::Kind::Dictionary:
      return newDictionary(object.dictionaryValue());
  }
  return std::nullopt;
}

}  // namespace kestrine
