#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/foundation/value/Date.h"
#include "platform/foundation/value/SharedText.h"
#include "platform/foundation/value/TextTable.h"
#include "platform/foundation/value/UUID.h"

namespace platform {

class Dictionary;
class FileHandle;
class Object;

/// Elements of an array value, in order.
using Array = std::vector<Object>;
/// Raw bytes.
using Data = std::vector<std::byte>;

/// The type code that a number keeps from its making. A boolean, a 32-bit 7, a 64-bit 7 and an unsigned 64-bit 7 are four different
/// numbers; the letters are those of the platform's type encoding (a boolean shares 'c' with a char there, so it has one of its own here).
enum class NumberType : char {
  Bool = 'B',
  Char = 'c',
  Short = 's',
  Int = 'i',
  LongLong = 'q',
  UnsignedLongLong = 'Q',
  Float = 'f',
  Double = 'd',
};

/// The one dynamic value: nothing (nil), null, number, string, data, date, UUID, file handle, array or dictionary. JSON, preferences
/// and messages are read into it and written from it.
///
/// Immutable, cheap to copy (strings, data, arrays and dictionaries share their representation) and compared by value. Asking an
/// object for something that its kind does not have throws Exception(NSInvalidArgumentException); asking nil yields nil, 0 or empty.
///
/// Threads: a value like any other; different copies may be used on different threads at once, shared representations included.
class Object {
 public:
  enum class Kind { Nil, Null, Number, String, Data, Date, UUID, FileHandle, Array, Dictionary };

  /// Nil.
  Object() = default;
  Object(std::nullptr_t) {}       // NOLINT(google-explicit-constructor): nil is written as nullptr
  Object(std::string text);       // NOLINT(google-explicit-constructor): values are written as they are, as in literals
  Object(std::string_view text);  // NOLINT(google-explicit-constructor)
  Object(const char* text);       // NOLINT(google-explicit-constructor): a null pointer gives nil
  Object(platform::Data data);    // NOLINT(google-explicit-constructor)
  Object(platform::Date date);    // NOLINT(google-explicit-constructor)
  Object(platform::UUID uuid);    // NOLINT(google-explicit-constructor)
  Object(std::shared_ptr<const platform::FileHandle> handle);  // NOLINT(google-explicit-constructor): a null pointer gives nil
  Object(platform::Array array);                               // NOLINT(google-explicit-constructor)
  Object(platform::Dictionary dictionary);                     // NOLINT(google-explicit-constructor)
  Object(bool) = delete;                                       // say numberWithBool; a pointer must not silently become a boolean
  Object(int) = delete;                                        // say which number: the type code is kept

  static Object null();
  static Object numberWithBool(bool value);
  static Object numberWithChar(signed char value);
  static Object numberWithShort(short value);
  static Object numberWithInt(int value);
  static Object numberWithLongLong(std::int64_t value);
  static Object numberWithUnsignedLongLong(std::uint64_t value);
  static Object numberWithFloat(float value);
  static Object numberWithDouble(double value);
  /// A number that none of the above holds, as the files of others may: its digits as they stand there, which are kept to be written again,
  /// and the nearest real number, which is what it is to everybody who asks for its value.
  static Object numberWithDigits(std::string digits, double nearest);
  /// A dictionary, as any other; cheaper to make and to write where the keys are constants and the values are texts. See TextTable for
  /// what it demands.
  static Object dictionaryOfTexts(std::span<const ConstantKeyText> entries);

  [[nodiscard]] Kind kind() const noexcept;
  [[nodiscard]] bool isNil() const noexcept { return kind() == Kind::Nil; }
  [[nodiscard]] bool isNull() const noexcept { return kind() == Kind::Null; }
  [[nodiscard]] bool isNumber() const noexcept { return kind() == Kind::Number; }
  [[nodiscard]] bool isString() const noexcept { return kind() == Kind::String; }
  [[nodiscard]] bool isArray() const noexcept { return kind() == Kind::Array; }
  [[nodiscard]] bool isDictionary() const noexcept { return kind() == Kind::Dictionary; }
  explicit operator bool() const noexcept { return !isNil(); }

  // Numbers. Conversions between number types are C's, and where C leaves a floating-point value undefined the nearest representable one
  // is given (0 for NaN). Nil gives 0 (and a number type of 0); other kinds throw, except that text is read as a number the way the
  // platform's strings are: leading blanks skipped, trailing text ignored, no number gives 0, one that does not fit gives the nearest.
  // Text is true when, after blanks, a sign and zeros, it goes on with a digit from 1 to 9 or with Y, y, T or t.
  [[nodiscard]] NumberType numberType() const;
  [[nodiscard]] bool boolValue() const;
  [[nodiscard]] int intValue() const;
  [[nodiscard]] std::int64_t longLongValue() const;
  [[nodiscard]] std::uint64_t unsignedLongLongValue() const;
  [[nodiscard]] double doubleValue() const;
  /// What `numberWithDigits` was given; empty for all other objects.
  [[nodiscard]] std::string_view numberDigits() const noexcept;

  // The other kinds; nil gives an empty or zero value. References stay valid while this object or a copy of it lives.
  [[nodiscard]] const std::string& stringValue() const;
  /// The same without making a std::string of it.
  [[nodiscard]] std::string_view stringView() const;
  [[nodiscard]] const platform::Data& dataValue() const;
  [[nodiscard]] platform::Date dateValue() const;
  [[nodiscard]] platform::UUID uuidValue() const;
  [[nodiscard]] std::shared_ptr<const platform::FileHandle> fileHandleValue() const;
  [[nodiscard]] const platform::Array& arrayValue() const;
  [[nodiscard]] const platform::Dictionary& dictionaryValue() const;
  /// The entries of a dictionary made by `dictionaryOfTexts`, for who goes through all of them; null for all other objects.
  [[nodiscard]] const TextTable* textTable() const noexcept;

  /// The value under `key` of a dictionary, nil when absent (and of nil).
  [[nodiscard]] Object objectForKey(std::string_view key) const;
  /// Element `index` of an array; out of range throws Exception(NSRangeException). Nil of nil.
  [[nodiscard]] Object objectAtIndex(std::size_t index) const;
  /// Number of elements or entries; 0 for nil.
  [[nodiscard]] std::size_t count() const;

  /// What "%@" prints: "(null)" for nil, "<null>" for null, text as it stands, numbers in decimal (booleans as 1 and 0), arrays and
  /// dictionaries in the platform's parenthesised form over several lines. Inside those, text that holds anything but ASCII letters and
  /// digits is quoted and escaped, so that one line of the form is one line of the log.
  [[nodiscard]] std::string description() const;

  /// By value. Numbers of different type codes differ, NaN equals NaN; file handles are equal when they are the same handle.
  friend bool operator==(const Object& a, const Object& b);

 private:
  struct Number {
    NumberType type;
    std::variant<std::int64_t, std::uint64_t, double> value;
    bool operator==(const Number& other) const;
  };
  struct WideNumber {
    Number nearest;
    std::string digits;
    friend bool operator==(const WideNumber&, const WideNumber&) = default;
  };
  struct NullTag {
    friend bool operator==(const NullTag&, const NullTag&) = default;
  };
  template <class T>
  using Shared = std::shared_ptr<const T>;
  /// In the order of Kind, and the second forms of a dictionary and of a number behind them.
  using Value = std::variant<std::monostate, NullTag, Number, SharedText, Shared<platform::Data>, platform::Date, platform::UUID,
                             Shared<platform::FileHandle>, Shared<platform::Array>, Shared<platform::Dictionary>, Shared<TextTable>,
                             Shared<WideNumber>>;
  Object(Number number);  // NOLINT(google-explicit-constructor)
  [[nodiscard]] const Number* number() const noexcept;
  [[noreturn]] void throwWrongKind(std::string_view asked) const;

  Value value_;
};

}  // namespace platform
