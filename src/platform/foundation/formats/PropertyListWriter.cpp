#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/formats/PropertyListText.h"

namespace platform {

namespace {

[[noreturn]] void refuse(const std::string& why) { throw Exception(NSInvalidArgumentException, "a property list cannot hold " + why); }

bool isReal(NumberType type) { return type == NumberType::Float || type == NumberType::Double; }

Object integerValue(std::uint64_t value) {
  if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return Object::numberWithUnsignedLongLong(value);
  return Object::numberWithLongLong(static_cast<std::int64_t>(value));
}

Object numberValue(const Object& number) {
  const auto type = number.numberType();
  if (type == NumberType::Bool) return Object::numberWithBool(number.boolValue());
  if (type == NumberType::UnsignedLongLong) return integerValue(number.unsignedLongLongValue());
  if (!isReal(type)) return Object::numberWithLongLong(number.longLongValue());
  if (!std::isfinite(number.doubleValue())) refuse("a number that is not finite");
  return Object::numberWithDouble(number.doubleValue());
}

Object dateValue(Date date) {
  if (!propertyListDateText(date)) refuse("a date outside the years 1 to 9999");
  return Date{std::floor(date.timeIntervalSince1970)};
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
        dictionary.emplace_hint(dictionary.end(), key, normalised(entry, depth + 1));
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

class Writer {
 public:
  std::string write(const Object& value) {
    text_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
    put(value, 0);
    text_ += "</plist>\n";
    checkSize();
    return std::move(text_);
  }

 private:
  void put(const Object& value, int depth) {
    checkSize();
    indent(depth);
    switch (value.kind()) {
      case Object::Kind::Number:
        return number(value);
      case Object::Kind::String:
        return element("string", value.stringValue());
      case Object::Kind::Data:
        return element("data", propertyListDataText(value.dataValue()));
      case Object::Kind::Date:
        return element("date", propertyListDateText(value.dateValue()).value());
      case Object::Kind::Array:
        text_ += "<array>\n";
        for (const auto& each : value.arrayValue()) put(each, depth + 1);
        return close("array", depth);
      case Object::Kind::Dictionary:
        text_ += "<dict>\n";
        for (const auto& [key, entry] : value.dictionaryValue()) {
          indent(depth + 1);
          element("key", key);
          put(entry, depth + 1);
        }
        return close("dict", depth);
      default:
        throw PropertyListError("a value that no property list holds");
    }
  }

  void number(const Object& value) {
    const auto type = value.numberType();
    if (type == NumberType::Bool) {
      text_ += value.boolValue() ? "<true/>\n" : "<false/>\n";
      return;
    }
    char digits[64];
    const auto digitsOf = [&digits](auto number) {
      const char* const end = std::to_chars(digits, std::end(digits), number).ptr;
      return std::string_view(digits, static_cast<std::size_t>(end - digits));
    };
    if (isReal(type)) return element("real", digitsOf(value.doubleValue()));
    if (type == NumberType::UnsignedLongLong) return element("integer", digitsOf(value.unsignedLongLongValue()));
    element("integer", digitsOf(value.longLongValue()));
  }

  void element(std::string_view name, std::string_view content) {
    ((text_ += '<') += name) += '>';
    for (const char c : content) escaped(c);
    ((text_ += "</") += name) += ">\n";
  }

  void escaped(char c) {
    if (c == '&') {
      text_ += "&amp;";
    } else if (c == '<') {
      text_ += "&lt;";
    } else if (c == '>') {
      text_ += "&gt;";
    } else if (c == '\r') {
      text_ += "&#13;";  // as it stands it would be read as a line feed: XML 1.0, section 2.11
    } else {
      text_ += c;
    }
  }

  void close(std::string_view name, int depth) {
    indent(depth);
    ((text_ += "</") += name) += ">\n";
  }

  void indent(int depth) { text_.append(static_cast<std::size_t>(depth), '\t'); }

  void checkSize() const {
    if (text_.size() > kPropertyListMaximumSize) throw PropertyListError("larger than a property list may be");
  }

  std::string text_;
};

}  // namespace

Object propertyListValue(const Object& value) { return normalised(value, 0); }

void requirePropertyListText(std::string_view text) {
  if (!isPropertyListText(text)) refuse("text that is not UTF-8 or has characters that XML does not allow");
}

std::string writePropertyList(const Object& value) { return Writer().write(value); }

}  // namespace platform
