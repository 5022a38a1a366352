#include <fmt/format.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/text/ASCII.h"
#include "platform/foundation/text/UTF8.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

constexpr std::size_t kBlanksPerLevel = 2;

[[noreturn]] void throwUnwritable(std::string_view what) {
  throw Exception(NSInvalidArgumentException, fmt::format("JSON cannot hold {}", what));
}

/// A text that grows at its end. A std::string's own `append` is a call for each of the few characters that JSON is put together from.
class GrowingText {
 public:
  /// `length`: about as long as it will be.
  explicit GrowingText(std::size_t length) : text_(length, '\0') {}

  void put(char c) {
    *room(1) = c;
    ++used_;
  }
  void put(std::string_view text) {
    if (text.empty()) return;
    std::memcpy(room(text.size()), text.data(), text.size());
    used_ += text.size();
  }
  void putNewLine(std::size_t blanks) {
    put('\n');
    std::memset(room(blanks), ' ', blanks);
    used_ += blanks;
  }
  std::string take() {
    text_.resize(used_);
    return std::move(text_);
  }

  // What RapidJSON asks of an output stream.
  using Ch = char;
  void Put(char c) { put(c); }
  void Flush() {}

 private:
  static constexpr std::size_t kLeast = 256;

  char* room(std::size_t count) {
    if (text_.size() - used_ < count) text_.resize(text_.size() + std::max(text_.size(), count + kLeast));
    return text_.data() + used_;
  }

  std::string text_;
  std::size_t used_ = 0;
};

constexpr std::uint64_t kEachByte = 0x0101010101010101U;
constexpr std::uint64_t kHighBits = 0x80 * kEachByte;

/// Has a high bit set where `word` holds a zero byte, and none when it holds none.
constexpr std::uint64_t zeroBytes(std::uint64_t word) { return (word - kEachByte) & ~word & kHighBits; }

/// Whether JSON takes all eight characters as they are: ASCII, no control character, neither of the two that are escaped.
constexpr bool isPlain(std::uint64_t word) {
  const std::uint64_t controls = (word - 0x20 * kEachByte) & ~word;
  return (((word | controls) & kHighBits) | zeroBytes(word ^ '"' * kEachByte) | zeroBytes(word ^ '\\' * kEachByte)) == 0;
}

constexpr bool isPlain(char c) { return c >= 0x20 && c != '"' && c != '\\' && static_cast<unsigned char>(c) < 0x80; }

/// How many of the first characters JSON takes as they are.
std::size_t plainLength(std::string_view text) {
  std::size_t length = 0;
  for (std::uint64_t word = 0; length + sizeof word <= text.size(); length += sizeof word) {
    std::memcpy(&word, text.data() + length, sizeof word);
    if (!isPlain(word)) break;
  }
  while (length < text.size() && isPlain(text[length])) ++length;
  return length;
}

void putEscaped(GrowingText& out, char c) {
  static constexpr std::string_view kCharacters = "\"\\\b\f\n\r\t";
  static constexpr std::string_view kLetters = "\"\\bfnrt";
  if (const std::size_t at = kCharacters.find(c); at != std::string_view::npos) {
    out.put('\\');
    out.put(kLetters[at]);
  } else {
    out.put("\\u00");
    out.put(kUpperHexDigits[static_cast<unsigned char>(c) >> 4U]);
    out.put(kUpperHexDigits[static_cast<unsigned char>(c) & 0xFU]);
  }
}

/// The length of the text of `object`, when nothing in it is escaped and its numbers are short: memory that is touched for the first time,
/// as that of a text which is moved each time that it has grown, costs more than the writing.
std::size_t lengthAbout(const Object& object, std::size_t blanks) {
  constexpr std::size_t kOfScalar = 8;
  constexpr std::size_t kAround = sizeof("\n\"\": \"\",") - 1;
  const std::size_t inner = blanks + kBlanksPerLevel;
  std::size_t length = kOfScalar + blanks;
  if (object.isString()) {
    length += object.stringView().size();
  } else if (object.isArray()) {
    for (const Object& element : object.arrayValue()) length += lengthAbout(element, inner);
  } else if (const TextTable* table = object.textTable()) {
    table->forEach([&](std::string_view key, std::string_view text) { length += inner + key.size() + text.size() + kAround; });
  } else if (object.isDictionary()) {
    for (const auto& [key, value] : object.dictionaryValue()) length += key.size() + kAround + lengthAbout(value, inner);
  }
  return length;
}

/// Writes one value and what it holds. Without blanks, unless it is for people.
class JSONWriter {
 public:
  JSONWriter(bool forPeople, std::size_t length) : out_(length), forPeople_(forPeople) {}

  void write(const Object& object) {
    switch (object.kind()) {
      case Object::Kind::Nil:
      case Object::Kind::Null:
        return out_.put("null");
      case Object::Kind::Number:
        return writeNumber(object);
      case Object::Kind::String:
        return writeText(object.stringView());
      case Object::Kind::Array:
        return writeArray(object.arrayValue());
      case Object::Kind::Dictionary:
        return writeDictionary(object);
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

  std::string take() { return out_.take(); }

 private:
  void writeArray(const Array& array) {
    open('[');
    bool first = true;
    for (const Object& element : array) {
      beginMember(std::exchange(first, false));
      write(element);
    }
    close(']', first);
  }

  void writeDictionary(const Object& object) {
    open('{');
    bool first = true;
    const auto beginEntry = [this, &first](std::string_view key) {
      beginMember(std::exchange(first, false));
      writeText(key);
      out_.put(forPeople_ ? std::string_view(": ") : std::string_view(":"));
    };
    if (const TextTable* table = object.textTable()) {
      table->forEach([&](std::string_view key, std::string_view text) {
        beginEntry(key);
        writeText(text);
      });
    } else {
      for (const auto& [key, value] : object.dictionaryValue()) {
        beginEntry(key);
        write(value);
      }
    }
    close('}', first);
  }

  void open(char bracket) {
    out_.put(bracket);
    ++level_;
  }
  void beginMember(bool first) {
    if (!first) out_.put(',');
    if (forPeople_) out_.putNewLine(level_ * kBlanksPerLevel);
  }
  void close(char bracket, bool empty) {
    --level_;
    if (forPeople_ && !empty) out_.putNewLine(level_ * kBlanksPerLevel);
    out_.put(bracket);
  }

  void writeText(std::string_view text) {
    out_.put('"');
    for (;;) {
      const std::size_t plain = plainLength(text);
      out_.put(text.substr(0, plain));
      text.remove_prefix(plain);
      if (text.empty()) break;
      char32_t character = 0;
      const std::size_t length = utf8Decode(text, character);
      if (length == 0) throwUnwritable("text that is not UTF-8");
      if (length == 1) {
        putEscaped(out_, text[0]);
      } else {
        out_.put(text.substr(0, length));
      }
      text.remove_prefix(length);
    }
    out_.put('"');
  }

  template <class Integer>
  void writeInteger(Integer value) {
    std::array<char, 24> digits{};
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), value);
    out_.put(std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data())));
  }

  void writeReal(double value) {
    if (!std::isfinite(value)) throwUnwritable("a number that is not finite");
    rapidjson::Writer<GrowingText>(out_).Double(value);
  }

  void writeNumber(const Object& number) {
    switch (number.numberType()) {
      case NumberType::Bool:
        return out_.put(number.boolValue() ? std::string_view("true") : std::string_view("false"));
      case NumberType::UnsignedLongLong:
        return writeInteger(number.unsignedLongLongValue());
      case NumberType::Float:
      case NumberType::Double:
        return writeReal(number.doubleValue());
      case NumberType::Char:
      case NumberType::Short:
      case NumberType::Int:
      case NumberType::LongLong:
        return writeInteger(number.longLongValue());
    }
  }

  GrowingText out_;
  const bool forPeople_;
  std::size_t level_ = 0;
};

std::string textOf(const Object& object, bool forPeople) {
  JSONWriter writer(forPeople, lengthAbout(object, 0));
  writer.write(object);
  return writer.take();
}

}  // namespace

std::string jsonText(const Object& object) { return textOf(object, false); }

std::string prettyJSONText(const Object& object) {
  if (!object.isArray() && !object.isDictionary()) throwUnwritable("this at its top: it is neither an array nor a dictionary");
  return textOf(object, true);
}

}  // namespace platform
