#include "platform/network/message/HTTPText.h"

#include <algorithm>
#include <charconv>

#include "platform/foundation/text/ASCII.h"

namespace platform::network {

bool isHTTPToken(std::string_view text) {
  constexpr std::string_view kOthers = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::ranges::all_of(text, [&kOthers](char c) {
    return isASCIIDigit(c) || isASCIILetter(c) || kOthers.find(c) != std::string_view::npos;
  });
}

bool breaksHeaderLine(std::string_view value) { return value.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos; }

std::string_view takeListElement(std::string_view& list) {
  bool quoted = false;
  std::size_t end = 0;
  for (; end < list.size() && (quoted || list[end] != ','); ++end) {
    if (list[end] == '"') quoted = !quoted;
    if (quoted && list[end] == '\\') ++end;
  }
  end = std::min(end, list.size());
  const auto element = trimmed(list.substr(0, end));
  list.remove_prefix(std::min(end + 1, list.size()));
  return element;
}

int statusInLine(std::string_view line) {
  int status = 0;
  const auto blank = line.find(' ');
  if (blank != std::string_view::npos) {
    const auto rest = trimmed(line.substr(blank), kLineBlanks);
    std::from_chars(rest.data(), rest.data() + rest.size(), status);
  }
  return status;
}

}  // namespace platform::network
