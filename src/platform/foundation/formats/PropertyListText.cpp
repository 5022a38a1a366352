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
