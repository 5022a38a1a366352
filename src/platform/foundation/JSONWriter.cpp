#include <fmt/format.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cmath>

#include "platform/foundation/Exception.h"
#include "platform/foundation/JSON.h"
#include "platform/foundation/UTF8.h"

namespace platform {

namespace {

constexpr unsigned kBlanksPerLevel = 2;

[[noreturn]] void throwUnwritable(std::string_view what) {
  throw Exception(NSInvalidArgumentException, fmt::format("JSON cannot hold {}", what));
}

template <class Writer>
void writeText(Writer& writer, const std::string& text) {
  if (!isUTF8(text)) throwUnwritable("text that is not UTF-8");
  if (text.size() > UINT32_MAX) throwUnwritable("text of that length");
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

template <class Writer>
void writeReal(Writer& writer, double value) {
  if (!std::isfinite(value)) throwUnwritable("a number that is not finite");
  writer.Double(value);
}

template <class Writer>
void writeNumber(Writer& writer, const Object& number) {
  switch (number.numberType()) {
    case NumberType::Bool:
      writer.Bool(number.boolValue());
      return;
    case NumberType::UnsignedLongLong:
      writer.Uint64(number.unsignedLongLongValue());
      return;
    case NumberType::Float:
    case NumberType::Double:
      writeReal(writer, number.doubleValue());
      return;
    case NumberType::Char:
    case NumberType::Short:
    case NumberType::Int:
    case NumberType::LongLong:
      writer.Int64(number.longLongValue());
      return;
  }
}

template <class Writer>
void writeObject(Writer& writer, const Object& object) {
  switch (object.kind()) {
    case Object::Kind::Nil:
    case Object::Kind::Null:
      writer.Null();
      return;
    case Object::Kind::Number:
      writeNumber(writer, object);
      return;
    case Object::Kind::String:
      writeText(writer, object.stringValue());
      return;
    case Object::Kind::Array:
      writer.StartArray();
      for (const Object& element : object.arrayValue()) writeObject(writer, element);
      writer.EndArray();
      return;
    case Object::Kind::Dictionary:
      writer.StartObject();
      for (const auto& [key, value] : object.dictionaryValue()) {
        writeText(writer, key);
        writeObject(writer, value);
      }
      writer.EndObject();
      return;
    case Object::Kind::Data:
      throwUnwritable("data");
    case Object::Kind::Date:
      throwUnwritable("a date");
    case Object::Kind::UUID:
      throwUnwritable("a UUID");
    case Object::Kind::FileHandle:
      throwUnwritable("a file handle");
  }
}

}  // namespace

std::string jsonText(const Object& object) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writeObject(writer, object);
  return {buffer.GetString(), buffer.GetSize()};
}

std::string prettyJSONText(const Object& object) {
  if (!object.isArray() && !object.isDictionary()) throwUnwritable("this at its top: it is neither an array nor a dictionary");
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  writer.SetIndent(' ', kBlanksPerLevel);
  writeObject(writer, object);
  return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace platform
