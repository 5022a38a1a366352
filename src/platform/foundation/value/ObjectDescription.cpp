// The text form of values, as the log shows them.
#include <fmt/format.h>

#include <algorithm>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/text/ASCII.h"
#include "platform/foundation/text/UTF8.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/foundation/value/Object.h"

namespace platform {

namespace {

constexpr std::size_t kBlanksPerLevel = 4;

bool isLetterOrDigit(char c) { return isASCIILetter(c) || isASCIIDigit(c); }

void appendEscaped(std::string& out, char32_t c) {
  static constexpr std::string_view kCharacters = "\a\b\t\n\v\f\r\"\\";
  static constexpr std::string_view kLetters = "abtnvfr\"\\";
  if (const std::size_t at = c < 0x80 ? kCharacters.find(static_cast<char>(c)) : std::string_view::npos; at != std::string_view::npos) {
    out += '\\';
    out += kLetters[at];
  } else if (c < 0x20 || c == 0x7F) {
    fmt::format_to(std::back_inserter(out), "\\{:03o}", static_cast<unsigned>(c));
  } else if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x10000) {
    fmt::format_to(std::back_inserter(out), "\\U{:04x}", static_cast<unsigned>(c));
  } else {
    const auto rest = static_cast<unsigned>(c) - 0x10000U;
    fmt::format_to(std::back_inserter(out), "\\U{:04x}\\U{:04x}", 0xD800U + (rest >> 10U), 0xDC00U + (rest & 0x3FFU));
  }
}

void appendQuoted(std::string& out, std::string_view text) {
  if (!text.empty() && std::ranges::all_of(text, isLetterOrDigit)) {
    out += text;
    return;
  }
  out += '"';
  while (!text.empty()) {
    char32_t character = 0;
    if (const std::size_t length = utf8Decode(text, character); length > 0) {
      appendEscaped(out, character);
      text.remove_prefix(length);
    } else {
      fmt::format_to(std::back_inserter(out), "\\{:03o}", static_cast<unsigned char>(text[0]));
      text.remove_prefix(1);
    }
  }
  out += '"';
}

std::string describeData(const Data& data) {
  std::string out = fmt::format("{{length = {}, bytes = 0x", data.size());
  for (const std::byte byte : data) fmt::format_to(std::back_inserter(out), "{:02x}", static_cast<unsigned>(byte));
  return out + "}";
}

std::string describeNumber(const Object& number) {
  if (const std::string_view digits = number.numberDigits(); !digits.empty()) return std::string(digits);
  switch (number.numberType()) {
    case NumberType::Float:
      return fmt::format("{}", static_cast<float>(number.doubleValue()));
    case NumberType::Double:
      return fmt::format("{}", number.doubleValue());
    case NumberType::UnsignedLongLong:
      return fmt::format("{}", number.unsignedLongLongValue());
    default:
      return fmt::format("{}", number.longLongValue());
  }
}

/// What stands for a value that has no elements.
std::string describeSimple(const Object& object) {
  switch (object.kind()) {
    case Object::Kind::Null:
      return "<null>";
    case Object::Kind::Number:
      return describeNumber(object);
    case Object::Kind::String:
      return std::string(object.stringView());
    case Object::Kind::Data:
      return describeData(object.dataValue());
    case Object::Kind::Date:
      return object.dateValue().description();
    case Object::Kind::UUID:
      return object.uuidValue().string();
    case Object::Kind::FileHandle:
      return fmt::format("<FileHandle: {}>", object.fileHandleValue()->fileDescriptor());
    default:
      return "(null)";
  }
}

/// A container begins with the blanks of its own level even in the middle of a line, as the platform writes it.
void appendElement(std::string& out, const Object& object, std::size_t level) {
  const std::string blanks(level * kBlanksPerLevel, ' ');
  const std::string innerBlanks = blanks + std::string(kBlanksPerLevel, ' ');
  if (object.isDictionary()) {
    out += blanks + "{\n";
    for (const auto& [key, value] : object.dictionaryValue()) {
      out += innerBlanks;
      appendQuoted(out, key);
      out += " = ";
      appendElement(out, value, level + 1);
      out += ";\n";
    }
    out += blanks + "}";
  } else if (object.isArray()) {
    out += blanks + "(";
    std::string_view separator = "\n";
    for (const Object& element : object.arrayValue()) {
      out += separator;
      out += innerBlanks;
      appendElement(out, element, level + 1);
      separator = ",\n";
    }
    out += '\n' + blanks + ")";
  } else if (object.kind() == Object::Kind::Data) {
    out += describeSimple(object);
  } else {
    appendQuoted(out, describeSimple(object));
  }
}

}  // namespace

std::string Object::description() const {
  if (!isArray() && !isDictionary()) return describeSimple(*this);
  std::string out;
  appendElement(out, *this, 0);
  return out;
}

}  // namespace platform
