#include <array>
#include <charconv>
#include <cmath>
#include <iterator>

#include "platform/foundation/formats/PropertyListText.h"
#include "platform/foundation/formats/PropertyListWriters.h"
#include "platform/foundation/text/Base64.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

/// XML cannot hold the value.
struct NotForXML {};

/// Which bytes stand in XML as they are.
constexpr std::array<bool, 256> kPlainBytes = [] {
  std::array<bool, 256> plain{};
  for (std::size_t byte = 0x20; byte < plain.size(); ++byte) plain[byte] = true;
  plain['\t'] = plain['\n'] = true;
  // The first byte of U+FFFE and U+FFFF is looked at more closely.
  plain['&'] = plain['<'] = plain['>'] = plain[0xEF] = false;
  return plain;
}();

class XMLWriter {
 public:
  explicit XMLWriter(bool spacious) : spacious_(spacious) {}

  std::string write(const Object& value) {
    text_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
    put(value, 0);
    text_ += "</plist>\n";
    checkSize();
    return std::move(text_);
  }

 private:
  void put(const Object& value, std::size_t depth) {
    checkSize();
    bounds_.count();
    indent(depth);
    switch (value.kind()) {
      case Object::Kind::Number:
        return number(value);
      case Object::Kind::String:
        return element("string", value.stringView());
      case Object::Kind::Data:
        return element("data", base64Text(value.dataValue()));
      case Object::Kind::Date:
        return date(value.dateValue());
      case Object::Kind::Array:
        PropertyListBounds::enter(depth);
        open("array");
        for (const auto& each : value.arrayValue()) put(each, depth + 1);
        return close("array", depth);
      case Object::Kind::Dictionary:
        PropertyListBounds::enter(depth);
        open("dict");
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
    if (const auto digits = value.numberDigits(); !digits.empty()) return element(isWholeNumber(digits) ? "integer" : "real", digits);
    const auto type = value.numberType();
    if (type == NumberType::Bool) {
      text_ += value.boolValue() ? "<true/>" : "<false/>";
      return endLine();
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

  void date(Date date) {
    const auto text = propertyListDateText(date);
    if (!text || std::floor(date.timeIntervalSince1970) != date.timeIntervalSince1970) throw NotForXML();
    element("date", *text);
  }

  void element(std::string_view name, std::string_view content) {
    ((text_ += '<') += name) += '>';
    escaped(content);
    ((text_ += "</") += name) += '>';
    endLine();
  }

  void escaped(std::string_view content) {
    for (std::size_t from = 0; from < content.size();) {
      std::size_t to = from;
      while (to < content.size() && kPlainBytes[static_cast<unsigned char>(content[to])]) ++to;
      text_ += content.substr(from, to - from);
      if (to < content.size()) special(content.substr(to));
      from = to + 1;
    }
  }

  void special(std::string_view rest) {
    const char c = rest.front();
    if (c == '&') {
      text_ += "&amp;";
    } else if (c == '<') {
      text_ += "&lt;";
    } else if (c == '>') {
      text_ += "&gt;";
    } else if (c == '\r') {
      text_ += "&#13;";  // as it stands it would be read as a line feed: XML 1.0, section 2.11
    } else if (c == '\xEF' && !rest.starts_with("\xEF\xBF\xBE") && !rest.starts_with("\xEF\xBF\xBF")) {
      text_ += c;
    } else {
      throw NotForXML();
    }
  }

  void open(std::string_view name) {
    ((text_ += '<') += name) += '>';
    endLine();
  }

  void close(std::string_view name, std::size_t depth) {
    indent(depth);
    ((text_ += "</") += name) += '>';
    endLine();
  }

  void indent(std::size_t depth) {
    if (spacious_) text_.append(depth, '\t');
  }
  void endLine() {
    if (spacious_) text_ += '\n';
  }

  void checkSize() const {
    if (text_.size() > kPropertyListMaximumSize) throw NotForXML();
  }

  const bool spacious_;
  PropertyListBounds bounds_;
  std::string text_;
};

}  // namespace

std::optional<std::string> writeXMLPropertyList(const Object& value, bool spacious) {
  try {
    return XMLWriter(spacious).write(value);
  } catch (const NotForXML&) {
    return std::nullopt;
  }
}

}  // namespace platform
