#include "app/cli/Numbers.h"

#include <charconv>
#include <cmath>

namespace kestrine {

namespace {

template <class Number, class... Form>
std::optional<Number> parse(std::string_view text, Form... form) {
  Number number{};
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number, form...);
  if (error != std::errc() || rest != end) return std::nullopt;
  return number;
}

}  // namespace

std::optional<std::uint64_t> parseUnsigned(std::string_view text) { return parse<std::uint64_t>(text, 10); }

std::optional<std::uint64_t> parseUnsignedOrHexadecimal(std::string_view text) {
  if (text.starts_with("0x")) return parse<std::uint64_t>(text.substr(2), 16);
  return parseUnsigned(text);
}

std::optional<std::int64_t> parseInteger(std::string_view text) { return parse<std::int64_t>(text, 10); }

std::optional<double> parseFraction(std::string_view text) {
  const auto number = parse<double>(text);
  return number && std::isfinite(*number) ? number : std::nullopt;
}

std::optional<double> parseSeconds(std::string_view text) {
  constexpr double kDay = 86400;
  const auto seconds = parseFraction(text);
  return seconds && *seconds >= 0 && *seconds <= kDay ? seconds : std::nullopt;
}

}  // namespace kestrine
