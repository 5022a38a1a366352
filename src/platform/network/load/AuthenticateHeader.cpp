#include "platform/network/load/AuthenticateHeader.h"

#include "platform/foundation/text/ASCII.h"
#include "platform/network/message/HTTPText.h"

namespace platform::network {

namespace {

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
    auto element = takeListElement(field);
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
    if (equalIgnoringASCIICase(trimmed(element.substr(0, equals)), "realm"))
      offers.back().realm = unquoted(trimmed(element.substr(equals + 1)));
  }
  return offers;
}

}  // namespace platform::network
