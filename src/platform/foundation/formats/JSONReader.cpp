#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/text/UTF8.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
// RapidJSON's own exact reading of numbers ends the process for some texts (an assertion), so it hands them over as text.
constexpr unsigned kFlags = rapidjson::kParseNumbersAsStringsFlag;

/// The power of ten of the first digit that counts, roughly: only whether it is above or below zero is asked.
long long magnitude(std::string_view number) {
  const std::size_t exponentAt = std::min(number.find_first_of("eE"), number.size());
  const std::string_view mantissa = number.substr(0, exponentAt);
  const auto point = static_cast<long long>(std::min(mantissa.find('.'), mantissa.size()));
  const std::size_t digit = mantissa.find_first_of("123456789");
  if (digit == std::string_view::npos) return 0;
  long long exponent = 0;
  if (exponentAt < number.size()) {
    std::string_view text = number.substr(exponentAt + 1);
    if (text.starts_with('+')) text.remove_prefix(1);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), exponent);
    if (error != std::errc()) return text.starts_with('-') ? -1 : 1;
    exponent = std::clamp(exponent, -4'000'000'000'000LL, 4'000'000'000'000LL);
  }
  return point - static_cast<long long>(digit) + exponent;
}

/// The number that a text of JSON's grammar stands for, exactly rounded; nil for one beyond the range of a double.
Object numberOf(std::string_view text) {
  const char* const end = text.data() + text.size();
  if (text.find_first_of(".eE") == std::string_view::npos) {
    std::int64_t integer = 0;
    if (std::from_chars(text.data(), end, integer).ec == std::errc()) return Object::numberWithLongLong(integer);
    std::uint64_t large = 0;
    if (!text.starts_with('-') && std::from_chars(text.data(), end, large).ec == std::errc()) {
      return Object::numberWithUnsignedLongLong(large);
    }
  }
  double value = 0;
  // One error stands for too large and for too small.
  if (std::from_chars(text.data(), end, value).ec != std::errc()) {
    if (magnitude(text) > 0) return {};
    value = text.starts_with('-') ? -0.0 : 0.0;
  }
  return std::isfinite(value) ? Object::numberWithDouble(value) : Object();
}

/// Builds the value while the text is read. Values and keys of the containers that are still open stand on two stacks. A callback that
/// returns false ends the reading; `reason` then says why. RapidJSON recurses once for each open container, so the bound on depth is
/// what bounds its stack.
class ObjectBuilder {
 public:
  bool Null() { return value(Object::null()); }
  bool Bool(bool value) { return this->value(Object::numberWithBool(value)); }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    Object number = numberOf({text, length});
    return number.isNil() ? fail("a number beyond the range of a double") : value(std::move(number));
  }
  // Not called, since numbers are asked for as text.
  bool Int(int /*value*/) { return fail("a number"); }
  bool Uint(unsigned /*value*/) { return fail("a number"); }
  bool Int64(std::int64_t /*value*/) { return fail("a number"); }
  bool Uint64(std::uint64_t /*value*/) { return fail("a number"); }
  bool Double(double /*value*/) { return fail("a number"); }

  bool String(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    const std::string_view string(text, length);
    return isText(string) && value(Object(string));
  }
  bool Key(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    const std::string_view key(text, length);
    if (!isText(key)) return false;
    keys_.emplace_back(key);
    return true;
  }

  bool StartArray() { return open(); }
  bool StartObject() { return open(); }

  bool EndArray(rapidjson::SizeType count) {
    const auto first = values_.end() - count;
    Array array(std::make_move_iterator(first), std::make_move_iterator(values_.end()));
    values_.erase(first, values_.end());
    --depth_;
    return value(Object(std::move(array)));
  }
  bool EndObject(rapidjson::SizeType count) {
    const auto first = values_.end() - count;
    const auto firstKey = keys_.end() - count;
    std::vector<Dictionary::value_type> entries;
    entries.reserve(count);
    for (std::size_t i = 0; i < count; ++i) entries.emplace_back(std::move(firstKey[i]), std::move(first[i]));
    values_.erase(first, values_.end());
    keys_.erase(firstKey, keys_.end());
    --depth_;
    return value(Object(Dictionary::withEntries(std::move(entries))));
  }

  [[nodiscard]] const char* reason() const { return reason_; }
  [[nodiscard]] Object result() { return std::move(values_.front()); }

 private:
  bool fail(const char* reason) {
    reason_ = reason;
    return false;
  }
  bool open() { return ++depth_ <= kJSONMaximumDepth || fail("containers are nested too deeply"); }
  bool value(Object object) {
    if (depth_ == 0 && !object.isArray() && !object.isDictionary()) return fail("neither an object nor an array at the top");
    values_.push_back(std::move(object));
    return true;
  }
  // RapidJSON takes a lone low surrogate and, unless it looks at every byte, any byte; one look at what it made of both is enough.
  bool isText(std::string_view text) { return isUTF8(text) || fail("text that is not UTF-8, or half a surrogate pair"); }

  std::vector<Object> values_;
  std::vector<std::string> keys_;
  int depth_ = 0;
  const char* reason_ = nullptr;
};

}  // namespace

Object readJSON(std::string_view text) {
  if (text.size() > UINT32_MAX) throw JSONError("the text is 4 GiB or longer", 0);
  const std::size_t mark = text.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0;
  text.remove_prefix(mark);

  ObjectBuilder builder;
  rapidjson::MemoryStream stream(text.data(), text.size());
  rapidjson::Reader reader;
  const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, builder);
  if (result.IsError()) {
    const char* reason = builder.reason() != nullptr ? builder.reason() : rapidjson::GetParseError_En(result.Code());
    throw JSONError(reason, mark + result.Offset());
  }
  // RapidJSON takes a NUL for the end of its input.
  if (stream.Tell() != text.size()) throw JSONError("text behind the end", mark + stream.Tell());
  return builder.result();
}

}  // namespace platform
