// What an Object answers when it is asked for a number.
#include <locale.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "platform/foundation/text/ASCII.h"
#include "platform/foundation/value/Object.h"

namespace platform {

namespace {

std::string_view withoutLeadingBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\n\v\f\r");
  return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

std::size_t digitsFrom(std::string_view text, std::size_t at) {
  while (at < text.size() && isASCIIDigit(text[at])) ++at;
  return at;
}

/// The decimal number that `text` begins with: sign, digits, fraction, exponent. Empty when there is none.
std::string_view decimalAtStart(std::string_view text) {
  const std::size_t sign = !text.empty() && (text[0] == '+' || text[0] == '-') ? 1 : 0;
  std::size_t end = digitsFrom(text, sign);
  std::size_t digits = end - sign;
  if (end < text.size() && text[end] == '.') {
    const std::size_t fraction = digitsFrom(text, end + 1);
    digits += fraction - end - 1;
    end = fraction;
  }
  if (digits == 0) return {};
  if (end < text.size() && (text[end] == 'e' || text[end] == 'E')) {
    std::size_t exponent = end + 1;
    if (exponent < text.size() && (text[exponent] == '+' || text[exponent] == '-')) ++exponent;
    if (const std::size_t last = digitsFrom(text, exponent); last > exponent) end = last;
  }
  return text.substr(0, end);
}

double doubleOfText(std::string_view text) {
  // The decimal point must not depend on the process's locale.
  static const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
  const std::string number(decimalAtStart(withoutLeadingBlanks(text)));
  return number.empty() ? 0 : strtod_l(number.c_str(), nullptr, plain);
}

template <class Integer>
Integer integerOfText(std::string_view text) {
  text = withoutLeadingBlanks(text);
  if (text.starts_with('+') && text.size() > 1 && isASCIIDigit(text[1])) text.remove_prefix(1);
  Integer value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc::result_out_of_range) return value;
  return text[0] == '-' ? std::numeric_limits<Integer>::min() : std::numeric_limits<Integer>::max();
}

std::uint64_t unsignedOfText(std::string_view text) {
  if (withoutLeadingBlanks(text).starts_with('-')) return static_cast<std::uint64_t>(integerOfText<std::int64_t>(text));
  return integerOfText<std::uint64_t>(text);
}

bool boolOfText(std::string_view text) {
  text = withoutLeadingBlanks(text);
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) text.remove_prefix(1);
  const std::size_t first = text.find_first_not_of('0');
  return first != std::string_view::npos && std::string_view("YyTt123456789").find(text[first]) != std::string_view::npos;
}

/// C's conversion where C defines it, else the nearest value.
template <class Integer>
Integer toInteger(double value) {
  if (std::isnan(value)) return 0;
  // Both limits are powers of two (or zero), which a double holds exactly; the upper one is the first value that does not fit.
  constexpr double kFirstBeyond = 2.0 * static_cast<double>(Integer{1} << (std::numeric_limits<Integer>::digits - 1));
  constexpr auto kLowest = static_cast<double>(std::numeric_limits<Integer>::min());
  if (value >= kFirstBeyond) return std::numeric_limits<Integer>::max();
  if (value <= kLowest) return std::numeric_limits<Integer>::min();
  return static_cast<Integer>(value);
}

template <class Integer, class From>
Integer toInteger(From value) {
  return static_cast<Integer>(value);
}

}  // namespace

const Object::Number* Object::number() const noexcept {
  if (const auto* wide = std::get_if<Shared<WideNumber>>(&value_)) return &(*wide)->nearest;
  return std::get_if<Number>(&value_);
}

std::string_view Object::numberDigits() const noexcept {
  const auto* wide = std::get_if<Shared<WideNumber>>(&value_);
  return wide == nullptr ? std::string_view() : std::string_view((*wide)->digits);
}

NumberType Object::numberType() const {
  if (const Number* number = this->number()) return number->type;
  if (!isNil()) throwWrongKind("numberType");
  return NumberType{};
}

bool Object::boolValue() const {
  if (isNil()) return false;
  if (isString()) return boolOfText(stringView());
  if (const Number* number = this->number()) return std::visit([](auto value) { return value != 0; }, number->value);
  throwWrongKind("boolValue");
}

int Object::intValue() const {
  if (isNil()) return 0;
  if (isString()) return integerOfText<int>(stringView());
  if (const Number* number = this->number()) return std::visit([](auto value) { return toInteger<int>(value); }, number->value);
  throwWrongKind("intValue");
}

std::int64_t Object::longLongValue() const {
  if (isNil()) return 0;
  if (isString()) return integerOfText<std::int64_t>(stringView());
  if (const Number* number = this->number()) {
    return std::visit([](auto value) { return toInteger<std::int64_t>(value); }, number->value);
  }
  throwWrongKind("longLongValue");
}

std::uint64_t Object::unsignedLongLongValue() const {
  if (isNil()) return 0;
  if (isString()) return unsignedOfText(stringView());
  if (const Number* number = this->number()) {
    // A negative fraction wraps as a negative integer does.
    if (const auto* real = std::get_if<double>(&number->value); real != nullptr && *real < 0) {
      return static_cast<std::uint64_t>(toInteger<std::int64_t>(*real));
    }
    return std::visit([](auto value) { return toInteger<std::uint64_t>(value); }, number->value);
  }
  throwWrongKind("unsignedLongLongValue");
}

double Object::doubleValue() const {
  if (isNil()) return 0;
  if (isString()) return doubleOfText(stringView());
  if (const Number* number = this->number()) return std::visit([](auto value) { return static_cast<double>(value); }, number->value);
  throwWrongKind("doubleValue");
}

}  // namespace platform
