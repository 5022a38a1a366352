#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/formats/PropertyListText.h"
#include "platform/foundation/formats/PropertyListWriters.h"
#include "platform/foundation/formats/PropertyListXML.h"
#include "platform/foundation/text/ASCII.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

[[noreturn]] void fail(const std::string& why) { throw PropertyListError(why); }

struct Tag {
  std::string_view name;
  bool closing = false;
  bool empty = false;
};

/// The XML of property lists cut into tags and text: comments and processing instructions are skipped, a document type without declarations
/// is allowed and ignored, entities are the five of XML and character references.
class Tokens {
 public:
  explicit Tokens(std::string_view text) : rest_(text) {}

  /// The next tag; nothing but blanks may come before it. Nullopt at the end of the text.
  std::optional<Tag> nextTag() {
    while (true) {
      rest_.remove_prefix(std::min(rest_.find_first_not_of(kPropertyListBlanks), rest_.size()));
      if (rest_.empty()) return std::nullopt;
      if (rest_.front() != '<') fail("text between elements");
      if (!skipMarkup()) return takeTag();
    }
  }

  /// The text up to the closing tag `name`, which is taken too.
  std::string takeText(std::string_view name) {
    std::string text;
    while (true) {
      const auto end = rest_.find_first_of("<&");
      if (end == std::string_view::npos) fail("an element without an end");
      appendLines(text, rest_.substr(0, end));
      rest_.remove_prefix(end);
      if (rest_.front() == '&') {
        takeReference(text);
      } else if (take("<![CDATA[")) {
        appendLines(text, takeUntil("]]>"));
      } else if (!skipMarkup()) {
        const Tag tag = takeTag();
        if (!tag.closing || tag.name != name) fail("an element inside text");
        if (!isPropertyListText(text)) fail("text that is not UTF-8 or has forbidden characters");
        return text;
      }
    }
  }

 private:
  bool take(std::string_view prefix) {
    if (!rest_.starts_with(prefix)) return false;
    rest_.remove_prefix(prefix.size());
    return true;
  }

  std::string_view takeUntil(std::string_view end) {
    const auto at = rest_.find(end);
    if (at == std::string_view::npos) fail("markup without an end");
    const auto taken = rest_.substr(0, at);
    rest_.remove_prefix(at + end.size());
    return taken;
  }

  bool skipMarkup() {
    if (take("<!--")) {
      takeUntil("-->");
    } else if (take("<?")) {
      takeUntil("?>");
    } else if (take("<!DOCTYPE")) {
      if (takeUntil(">").find('[') != std::string_view::npos) fail("a document type with declarations");
    } else {
      return false;
    }
    return true;
  }

  // Attributes say nothing in a property list; their quotes may hide the end of the tag.
  Tag takeTag() {
    Tag tag;
    rest_.remove_prefix(1);
    tag.closing = take("/");
    const auto length = rest_.find_first_of(" \t\r\n/>");
    if (length == std::string_view::npos || length == 0) fail("a tag without a name or an end");
    tag.name = rest_.substr(0, length);
    rest_.remove_prefix(length);
    while (true) {
      const auto at = rest_.find_first_of("\"'/>");
      if (at == std::string_view::npos) fail("a tag without an end");
      const char found = rest_[at];
      rest_.remove_prefix(at + 1);
      if (found == '>') return tag;
      if (found == '/') {
        if (tag.closing || !take(">")) fail("a stray '/' in a tag");
        tag.empty = true;
        return tag;
      }
      takeUntil(std::string_view(&found, 1));
    }
  }

  // XML 1.0, section 2.11: every line end is told as one line feed.
  static void appendLines(std::string& text, std::string_view piece) {
    for (std::size_t i = 0; i < piece.size(); ++i) {
      if (piece[i] != '\r') {
        text += piece[i];
      } else if (i + 1 == piece.size() || piece[i + 1] != '\n') {
        text += '\n';
      }
    }
  }

  void takeReference(std::string& text) {
    static constexpr std::pair<std::string_view, char> kEntities[] = {
        {"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}};
    for (const auto& [entity, character] : kEntities) {
      if (take(entity)) {
        text += character;
        return;
      }
    }
    if (!take("&#")) fail("an unknown entity");
    const int base = take("x") ? 16 : 10;
    const auto digits = takeUntil(";");
    std::uint32_t character = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), character, base);
    if (error != std::errc() || end != digits.data() + digits.size() || character > 0x10FFFF) fail("a bad character reference");
    appendCharacter(text, character);
  }

  std::string_view rest_;
};

Object dateFrom(std::string_view text) {
  const auto date = propertyListDate(trimmed(text, kPropertyListBlanks));
  if (!date) fail("a bad date");
  return *date;
}

Object dataFrom(std::string_view text) {
  auto data = propertyListData(text);
  if (!data) fail("bad data");
  return std::move(*data);
}

struct LeafKind {
  std::string_view name;
  Object (*make)(std::string_view text);
};
constexpr LeafKind kLeaves[] = {
    {"string", [](std::string_view text) { return Object(text); }},
    {"integer", propertyListInteger},
    {"real", propertyListReal},
    {"date", dateFrom},
    {"data", dataFrom},
    {"true", [](std::string_view) { return Object::numberWithBool(true); }},
    {"false", [](std::string_view) { return Object::numberWithBool(false); }},
};

/// Builds the value with a stack of its own, so that nesting costs no call depth.
class XMLReader {
 public:
  explicit XMLReader(std::string_view text) : tokens_(text) {}

  Object read() {
    const auto first = tokens_.nextTag();
    if (!first || first->name != "plist" || first->closing || first->empty) fail("no property list");
    while (true) {
      const auto tag = tokens_.nextTag();
      if (!tag) fail("a property list without an end");
      if (tag->name == "plist") {
        if (!tag->closing || !open_.empty() || root_.isNil() || tokens_.nextTag()) fail("a misplaced \"plist\"");
        return root_;
      }
      take(*tag);
    }
  }

 private:
  struct Container {
    bool isDictionary = false;
    std::optional<std::string> key;
    std::vector<Dictionary::value_type> entries;
    Array array;
  };

  void take(const Tag& tag) {
    if (tag.name == "dict" || tag.name == "array") return takeContainer(tag);
    if (tag.closing) fail("an end without a beginning");
    if (tag.name == "key") {
      if (open_.empty() || !open_.back().isDictionary || open_.back().key) fail("a misplaced key");
      open_.back().key = tag.empty ? std::string() : tokens_.takeText(tag.name);
      return;
    }
    for (const auto& [name, make] : kLeaves) {
      if (tag.name == name) return deliver(make(tag.empty ? std::string() : tokens_.takeText(name)));
    }
    fail("an unknown element");
  }

  void takeContainer(const Tag& tag) {
    const bool isDictionary = tag.name == "dict";
    if (!tag.closing) {
      PropertyListBounds::enter(open_.size());
      open_.emplace_back().isDictionary = isDictionary;
      if (!tag.empty) return;
    }
    if (open_.empty() || open_.back().isDictionary != isDictionary || open_.back().key)
      fail("an end without a beginning, or a key without a value");
    Container container = std::move(open_.back());
    open_.pop_back();
    deliver(isDictionary ? Object(Dictionary::withEntries(std::move(container.entries))) : Object(std::move(container.array)));
  }

  void deliver(Object value) {
    bounds_.count();
    if (open_.empty()) {
      if (!root_.isNil()) fail("more than one value");
      root_ = std::move(value);
      return;
    }
    Container& container = open_.back();
    if (!container.isDictionary) {
      container.array.push_back(std::move(value));
      return;
    }
    if (!container.key) fail("a value without a key");
    container.entries.emplace_back(std::move(*container.key), std::move(value));
    container.key.reset();
  }

  Tokens tokens_;
  std::vector<Container> open_;
  Object root_;
  PropertyListBounds bounds_;
};

}  // namespace

Object readXMLPropertyList(std::string_view text) {
  PropertyListBounds::size(text.size());
  const auto converted = utf8FromXML(text);
  if (converted) text = *converted;
  PropertyListBounds::size(text.size());
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  return XMLReader(text).read();
}

}  // namespace platform
