#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <utility>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/formats/PropertyListText.h"
#include "platform/foundation/formats/PropertyListXML.h"
#include "platform/foundation/text/ASCII.h"

namespace platform {

namespace {

/// A number's whole text as a type of ours; an error of std::errc when it is none or does not fit.
template <class Number, class... Base>
std::pair<Number, std::errc> numberOf(std::string_view text, Base... base) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base...);
  return {number, end == text.data() + text.size() ? error : std::errc::invalid_argument};
}

std::string_view withoutPlus(std::string_view text) {
  text = trimmed(text, kPropertyListBlanks);
  if (text.starts_with('+')) text.remove_prefix(1);
  return text;
}

/// What a real number beyond the range of double is nearest to.
double nearestTo(std::string_view digits) {
  const bool isNegative = digits.starts_with('-');
  if (isNegative) digits.remove_prefix(1);
  const auto exponent = digits.find_first_of("eE");
  const bool isSmall = exponent != std::string_view::npos
                           ? exponent + 1 < digits.size() && digits[exponent + 1] == '-'
                           : digits.substr(0, digits.find('.')).find_first_not_of('0') == std::string_view::npos;
  const double size = isSmall ? 0 : std::numeric_limits<double>::infinity();
  return isNegative ? -size : size;
}

/// One form for one value, so that it is the same from a binary list.
std::string withoutLeadingZeros(std::string_view digits) {
  const bool isNegative = digits.starts_with('-');
  if (isNegative) digits.remove_prefix(1);
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  return (isNegative ? "-" : "") + std::string(digits);
}

}  // namespace

Object propertyListInteger(std::string_view text) {
  text = withoutPlus(text);
  if (const auto [number, error] = numberOf<std::int64_t>(text, 10); error == std::errc()) return Object::numberWithLongLong(number);
  if (const auto [number, error] = numberOf<std::uint64_t>(text, 10); error == std::errc())
    return Object::numberWithUnsignedLongLong(number);
  if (text.starts_with("0x") || text.starts_with("0X")) {
    const auto [number, error] = numberOf<std::uint64_t>(text.substr(2), 16);
    if (error == std::errc() && number <= std::uint64_t{std::numeric_limits<std::int64_t>::max()}) {
      return Object::numberWithLongLong(static_cast<std::int64_t>(number));
    }
    if (error == std::errc()) return Object::numberWithUnsignedLongLong(number);
  }
  if (!isWholeNumber(text)) throw PropertyListError("a bad integer");
  std::string digits = withoutLeadingZeros(text);
  const auto [nearest, error] = numberOf<double>(digits);
  const double value = error == std::errc() ? nearest : nearestTo(digits);
  return Object::numberWithDigits(std::move(digits), value);
}

Object propertyListReal(std::string_view text) {
  text = withoutPlus(text);
  const auto [number, error] = numberOf<double>(text);
  if (error == std::errc()) return Object::numberWithDouble(number);
  if (error != std::errc::result_out_of_range) throw PropertyListError("a bad real number");
  std::string digits(text);
  // A real number stays one.
  if (isWholeNumber(digits)) digits += "e0";
  return Object::numberWithDigits(std::move(digits), nearestTo(text));
}

}  // namespace platform
