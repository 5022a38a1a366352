#include "platform/foundation/formats/PropertyListText.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <iterator>

#include "platform/foundation/text/ASCII.h"
#include "platform/foundation/text/Base64.h"
#include "platform/foundation/text/UTF8.h"

namespace platform {

namespace {

/// A number of exactly `digits` decimal digits at the front of `text`, which loses them; and then `separator`.
std::optional<int> takeNumber(std::string_view& text, std::size_t digits, char separator) {
  int number = 0;
  if (text.size() <= digits || text[digits] != separator) return std::nullopt;
  for (const char c : text.substr(0, digits)) {
    if (!isASCIIDigit(c)) return std::nullopt;
    number = number * 10 + (c - '0');
  }
  text.remove_prefix(digits + 1);
  return number;
}

}  // namespace

bool isPropertyListCharacter(char32_t character) {
  if (character < 0x20) return character == 0x9 || character == 0xA || character == 0xD;
  return character != 0xFFFE && character != 0xFFFF;
}

bool isPropertyListText(std::string_view text) {
  char32_t character = 0;
  while (!text.empty()) {
    // Nearly all of nearly every text.
    if (text.front() >= 0x20) {
      text.remove_prefix(1);
      continue;
    }
    const std::size_t length = utf8Decode(text, character);
    if (length == 0 || !isPropertyListCharacter(character)) return false;
    text.remove_prefix(length);
  }
  return true;
}

void appendCharacter(std::string& text, std::uint32_t character) {
  const auto put = [&text](std::uint32_t byte) { text += static_cast<char>(byte); };
  const auto putTail = [&](unsigned shift) { put(0x80U | (character >> shift & 0x3FU)); };
  if (character < 0x80) {
    put(character);
  } else if (character < 0x800) {
    put(0xC0U | character >> 6U);
    putTail(0);
  } else if (character < 0x10000) {
    put(0xE0U | character >> 12U);
    putTail(6);
    putTail(0);
  } else {
    put(0xF0U | character >> 18U);
    putTail(12);
    putTail(6);
    putTail(0);
  }
}

bool isASCIIText(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string utf8FromUTF16(std::string_view units, bool littleEndian) {
  const auto unit = [units, littleEndian](std::size_t i) {
    const auto first = static_cast<unsigned char>(units[i]);
    const auto second = static_cast<unsigned char>(units[i + 1]);
    return static_cast<std::uint32_t>(littleEndian ? second << 8U | first : first << 8U | second);
  };
  std::string text;
  text.reserve(units.size() / 2);
  for (std::size_t i = 0; i + 1 < units.size(); i += 2) {
    std::uint32_t character = unit(i);
    if ((character & 0xFC00U) == 0xD800U && i + 3 < units.size() && (unit(i + 2) & 0xFC00U) == 0xDC00U) {
      character = 0x10000 + ((character & 0x3FFU) << 10U | (unit(i + 2) & 0x3FFU));
      i += 2;
    }
    appendCharacter(text, character);
  }
  return text;
}

std::string utf16FromUTF8(std::string_view text) {
  std::string units;
  units.reserve(2 * text.size());
  const auto put = [&units](std::uint32_t unit) {
    units += static_cast<char>(unit >> 8U & 0xFFU);
    units += static_cast<char>(unit & 0xFFU);
  };
  char32_t character = 0;
  for (std::size_t length = 0; !text.empty(); text.remove_prefix(length)) {
    length = utf8Decode(text, character);
    if (length == 0) break;
    if (character < 0x10000) {
      put(character);
    } else {
      put(0xD800U | ((character - 0x10000U) >> 10U));
      put(0xDC00U | ((character - 0x10000U) & 0x3FFU));
    }
  }
  return units;
}

bool isWholeNumber(std::string_view digits) {
  if (digits.starts_with('-')) digits.remove_prefix(1);
  return !digits.empty() && std::ranges::all_of(digits, isASCIIDigit);
}

std::optional<WideInteger> integerOf128Bits(std::string_view digits) {
  if (!isWholeNumber(digits)) return std::nullopt;
  const bool isNegative = digits.starts_with('-');
  if (isNegative) digits.remove_prefix(1);
  // Bits, of which a number in two's complement has one less for its size.
  __extension__ using Wide = unsigned __int128;
  const Wide limit = (Wide{1} << 127U) - (isNegative ? 0 : 1);
  Wide value = 0;
  for (const char digit : digits) {
    const auto next = static_cast<unsigned>(digit - '0');
    if (value > (limit - next) / 10) return std::nullopt;
    value = value * 10 + next;
  }
  if (isNegative) value = ~value + 1;
  return WideInteger{static_cast<std::uint64_t>(value >> 64U), static_cast<std::uint64_t>(value)};
}

std::string digitsOf(WideInteger integer) {
  __extension__ using Wide = unsigned __int128;
  Wide value = Wide{integer.high} << 64U | integer.low;
  const bool isNegative = (integer.high >> 63U) != 0;
  if (isNegative) value = ~value + 1;
  std::string digits;
  do digits += static_cast<char>('0' + static_cast<int>(value % 10));
  while ((value /= 10) != 0);
  if (isNegative) digits += '-';
  std::ranges::reverse(digits);
  return digits;
}

std::optional<std::string> propertyListDateText(Date date) {
  using namespace std::chrono;
  constexpr double kFirst = -62135596800.0;  // 0001-01-01T00:00:00Z
  constexpr double kEnd = 253402300800.0;    // 10000-01-01T00:00:00Z
  if (!(date.timeIntervalSince1970 >= kFirst && date.timeIntervalSince1970 < kEnd)) return std::nullopt;
  const sys_seconds time{seconds(static_cast<std::int64_t>(std::floor(date.timeIntervalSince1970)))};
  const auto day = floor<days>(time);
  const year_month_day calendar(day);
  const hh_mm_ss clock(time - day);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", int(calendar.year()), unsigned(calendar.month()), unsigned(calendar.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

std::optional<Date> propertyListDate(std::string_view text) {
  using namespace std::chrono;
  const auto y = takeNumber(text, 4, '-');
  const auto m = y ? takeNumber(text, 2, '-') : y;
  const auto d = m ? takeNumber(text, 2, 'T') : m;
  const auto hour = d ? takeNumber(text, 2, ':') : d;
  const auto minute = hour ? takeNumber(text, 2, ':') : hour;
  const auto second = minute ? takeNumber(text, 2, 'Z') : minute;
  if (!second || !text.empty() || *y == 0 || *hour > 23 || *minute > 59 || *second > 60) return std::nullopt;
  const year_month_day calendar(year(*y), month(static_cast<unsigned>(*m)), day(static_cast<unsigned>(*d)));
  if (!calendar.ok()) return std::nullopt;
  const auto time = sys_seconds(sys_days(calendar)) + hours(*hour) + minutes(*minute) + seconds(*second);
  const Date date{static_cast<double>(time.time_since_epoch().count())};
  // The leap second of the last day is the first of the next year.
  if (!propertyListDateText(date)) return std::nullopt;
  return date;
}

std::optional<Data> propertyListData(std::string_view text) {
  std::string digits;
  digits.reserve(text.size());
  std::ranges::copy_if(text, std::back_inserter(digits), [](char c) { return kPropertyListBlanks.find(c) == std::string_view::npos; });
  return base64Bytes(digits);
}

}  // namespace platform
