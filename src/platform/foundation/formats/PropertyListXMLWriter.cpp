#include <charconv>
#include <iterator>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/formats/PropertyListText.h"
#include "platform/foundation/text/Base64.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

class XMLWriter {
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
        return element("data", base64Text(value.dataValue()));
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
    if (type == NumberType::Float || type == NumberType::Double) return element("real", digitsOf(value.doubleValue()));
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

std::string writePropertyList(const Object& value) { return XMLWriter().write(value); }

}  // namespace platform
