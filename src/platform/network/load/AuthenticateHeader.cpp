#include "platform/network/load/AuthenticateHeader.h"

#include "platform/network/message/HTTPHeaders.h"

namespace platform::network {

namespace {

std::string_view trimmed(std::string_view text) {
  const auto begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

/// Up to the next comma that is not inside a quoted string; takes it off `rest`.
std::string_view nextElement(std::string_view& rest) {
  bool quoted = false;
  std::size_t end = 0;
  for (; end < rest.size() && (quoted || rest[end] != ','); ++end) {
    if (rest[end] == '"') quoted = !quoted;
    if (quoted && rest[end] == '\\') ++end;
  }
  end = std::min(end, rest.size());
  const auto element = trimmed(rest.substr(0, end));
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return element;
}

std::string unquoted(std::string_view value) {
  if (value.size() < 2 || value.front() != '"' || value.back() != '"') return std::string(value);
  std::string text;
  for (std::size_t i = 1; i + 1 < value.size(); ++i) {
    if (value[i] == '\\' && i + 2 < value.size()) ++i;
    text += value[i];
  }
  return text;
}

}  // namespace

std::vector<AuthenticationOffer> authenticationOffers(std::string_view field) {
  std::vector<AuthenticationOffer> offers;
  while (!field.empty()) {
    auto element = nextElement(field);
    const auto word = element.substr(0, element.find_first_of(" \t="));
    if (word.empty()) continue;
    auto rest = trimmed(element.substr(word.size()));
    // "Basic realm=..." begins an offer, "realm=..." goes on with the former one.
    if (rest.empty() || rest.front() != '=') {
      offers.push_back({std::string(word), {}});
      element = rest;
    }
    const auto equals = element.find('=');
    if (equals == std::string_view::npos || offers.empty()) continue;
    if (equalsIgnoringCase(trimmed(element.substr(0, equals)), "realm"))
      offers.back().realm = unquoted(trimmed(element.substr(equals + 1)));
  }
  return offers;
}

}  // namespace platform::network
