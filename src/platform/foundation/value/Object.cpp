#include "platform/foundation/value/Object.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

/// In the order of Object::Kind.
constexpr std::array<std::string_view, 10> kKindNames = {"nil",  "a null", "a number",      "a string", "data",
                                                         "date", "a UUID", "a file handle", "an array", "a dictionary"};

/// What a container accessor of nil refers to.
template <class T>
const T& emptyValue() {
  static const T& empty = *new T();
  return empty;
}

}  // namespace

Object::Object(std::string text) : value_(SharedText(std::move(text))) {}
Object::Object(std::string_view text) : value_(SharedText(text)) {}
Object::Object(const char* text) {
  if (text != nullptr) value_ = SharedText(std::string_view(text));
}
Object::Object(platform::Data data) : value_(std::make_shared<const platform::Data>(std::move(data))) {}
Object::Object(platform::Date date) : value_(date) {}
Object::Object(platform::UUID uuid) : value_(uuid) {}
Object::Object(std::shared_ptr<const platform::FileHandle> handle) {
  if (handle) value_ = std::move(handle);
}
Object::Object(platform::Array array) : value_(std::make_shared<const platform::Array>(std::move(array))) {}
Object::Object(platform::Dictionary dictionary) : value_(std::make_shared<const platform::Dictionary>(std::move(dictionary))) {}
Object::Object(Number number) : value_(number) {}

Object Object::null() {
  Object object;
  object.value_ = NullTag{};
  return object;
}

Object Object::numberWithBool(bool value) { return Number{NumberType::Bool, std::int64_t{value}}; }
Object Object::numberWithChar(signed char value) { return Number{NumberType::Char, std::int64_t{value}}; }
Object Object::numberWithShort(short value) { return Number{NumberType::Short, std::int64_t{value}}; }
Object Object::numberWithInt(int value) { return Number{NumberType::Int, std::int64_t{value}}; }
Object Object::numberWithLongLong(std::int64_t value) { return Number{NumberType::LongLong, value}; }
Object Object::numberWithUnsignedLongLong(std::uint64_t value) { return Number{NumberType::UnsignedLongLong, value}; }
Object Object::numberWithFloat(float value) { return Number{NumberType::Float, double{value}}; }
Object Object::numberWithDouble(double value) { return Number{NumberType::Double, value}; }

Object Object::numberWithDigits(std::string digits, double nearest) {
  Object object;
  object.value_ = std::make_shared<const WideNumber>(WideNumber{Number{NumberType::Double, nearest}, std::move(digits)});
  return object;
}

Object Object::dictionaryOfTexts(std::span<const ConstantKeyText> entries) {
  Object object;
  object.value_ = std::make_shared<const TextTable>(entries);
  return object;
}

Object::Kind Object::kind() const noexcept {
  static_assert(std::variant_size_v<Value> == kKindNames.size() + 2, "Kind follows the order of the alternatives");
  if (std::holds_alternative<Shared<WideNumber>>(value_)) return Kind::Number;
  return static_cast<Kind>(std::min(value_.index(), static_cast<std::size_t>(Kind::Dictionary)));
}

void Object::throwWrongKind(std::string_view asked) const {
  throw Exception(NSInvalidArgumentException, fmt::format("{} has no {}", kKindNames[static_cast<std::size_t>(kind())], asked));
}

const std::string& Object::stringValue() const {
  if (const auto* text = std::get_if<SharedText>(&value_)) return text->string();
  if (!isNil()) throwWrongKind("stringValue");
  return emptyValue<std::string>();
}

std::string_view Object::stringView() const {
  if (const auto* text = std::get_if<SharedText>(&value_)) return text->view();
  if (!isNil()) throwWrongKind("stringView");
  return {};
}

const platform::Data& Object::dataValue() const {
  if (const auto* data = std::get_if<Shared<platform::Data>>(&value_)) return **data;
  if (!isNil()) throwWrongKind("dataValue");
  return emptyValue<platform::Data>();
}

platform::Date Object::dateValue() const {
  if (const auto* date = std::get_if<platform::Date>(&value_)) return *date;
  if (!isNil()) throwWrongKind("dateValue");
  return {};
}

platform::UUID Object::uuidValue() const {
  if (const auto* uuid = std::get_if<platform::UUID>(&value_)) return *uuid;
  if (!isNil()) throwWrongKind("uuidValue");
  return {};
}

std::shared_ptr<const platform::FileHandle> Object::fileHandleValue() const {
  if (const auto* handle = std::get_if<Shared<platform::FileHandle>>(&value_)) return *handle;
  if (!isNil()) throwWrongKind("fileHandleValue");
  return nullptr;
}

const platform::Array& Object::arrayValue() const {
  if (const auto* array = std::get_if<Shared<platform::Array>>(&value_)) return **array;
  if (!isNil()) throwWrongKind("arrayValue");
  return emptyValue<platform::Array>();
}

const platform::Dictionary& Object::dictionaryValue() const {
  if (const auto* dictionary = std::get_if<Shared<platform::Dictionary>>(&value_)) return **dictionary;
  if (const TextTable* table = textTable()) return table->dictionary();
  if (!isNil()) throwWrongKind("dictionaryValue");
  return emptyValue<platform::Dictionary>();
}

const TextTable* Object::textTable() const noexcept {
  const auto* table = std::get_if<Shared<TextTable>>(&value_);
  return table == nullptr ? nullptr : table->get();
}

Object Object::objectForKey(std::string_view key) const {
  if (!isDictionary() && !isNil()) throwWrongKind("objectForKey");
  const platform::Dictionary& entries = dictionaryValue();
  const auto found = entries.find(key);
  return found == entries.end() ? Object() : found->second;
}

Object Object::objectAtIndex(std::size_t index) const {
  if (isNil()) return {};
  if (!isArray()) throwWrongKind("objectAtIndex");
  const platform::Array& elements = arrayValue();
  if (index < elements.size()) return elements[index];
  throw Exception(NSRangeException, fmt::format("index {} is beyond the array's {} elements", index, elements.size()));
}

std::size_t Object::count() const {
  if (isNil()) return 0;
  if (isArray()) return arrayValue().size();
  if (const TextTable* table = textTable()) return table->size();
  if (isDictionary()) return dictionaryValue().size();
  throwWrongKind("count");
}

bool Object::Number::operator==(const Number& other) const {
  if (type != other.type) return false;
  const auto* a = std::get_if<double>(&value);
  const auto* b = std::get_if<double>(&other.value);
  // A value equals its copy, so that "has it changed?" has an answer for NaN too.
  if (a != nullptr && b != nullptr && std::isnan(*a) && std::isnan(*b)) return true;
  return value == other.value;
}

bool operator==(const Object& a, const Object& b) {
  // Of either form.
  if (a.isDictionary() && b.isDictionary()) {
    const Dictionary& left = a.dictionaryValue();
    const Dictionary& right = b.dictionaryValue();
    return &left == &right || left == right;
  }
  return std::visit(
      []<class A, class B>(const A& left, const B& right) {
        if constexpr (!std::is_same_v<A, B>) {
          return false;
        } else if constexpr (std::is_same_v<A, std::shared_ptr<const platform::FileHandle>> ||
                             std::is_same_v<A, std::shared_ptr<const TextTable>>) {
          return left == right;
        } else if constexpr (requires { left.get(); }) {
          return left == right || *left == *right;
        } else {
          return left == right;
        }
      },
      a.value_, b.value_);
}

}  // namespace platform
