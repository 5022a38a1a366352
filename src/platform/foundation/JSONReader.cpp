#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <iterator>
#include <utility>
#include <vector>

#include "platform/foundation/JSON.h"
#include "platform/foundation/UTF8.h"

namespace platform {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
// Numbers are read exactly: what was written and read again is the same number.
constexpr unsigned kFlags = rapidjson::kParseFullPrecisionFlag;

/// Builds the value while the text is read. Values and keys of the containers that are still open stand on two stacks. A callback that
/// returns false ends the reading; `reason` then says why. RapidJSON recurses once for each open container, so the bound on depth is
/// what bounds its stack.
class ObjectBuilder {
 public:
  bool Null() { return value(Object::null()); }
  bool Bool(bool value) { return this->value(Object::numberWithBool(value)); }
  bool Int(int value) { return Int64(value); }
  bool Uint(unsigned value) { return Int64(value); }
  bool Int64(std::int64_t value) { return this->value(Object::numberWithLongLong(value)); }
  bool Uint64(std::uint64_t value) {
    if (std::in_range<std::int64_t>(value)) return Int64(static_cast<std::int64_t>(value));
    return this->value(Object::numberWithUnsignedLongLong(value));
  }
  bool Double(double value) { return this->value(Object::numberWithDouble(value)); }
  // Only called when numbers are asked for as text.
  bool RawNumber(const char* /*text*/, rapidjson::SizeType /*length*/, bool /*copy*/) { return fail("a number as text"); }

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
    Dictionary dictionary;
    for (std::size_t i = 0; i < count; ++i) {
      // Keys that come in order, as a writer of sorted keys sends them, are put at the end without a search.
      dictionary.insert_or_assign(dictionary.end(), std::move(firstKey[i]), std::move(first[i]));
    }
    values_.erase(first, values_.end());
    keys_.erase(firstKey, keys_.end());
    --depth_;
    return value(Object(std::move(dictionary)));
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
