#include "platform/network/load/LoadQuestion.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/foundation/text/ASCII.h"

namespace platform::network {

namespace {

struct Way {
  const char* scheme;
  const char* method;
  HTTPAuthentication authentication;
};
constexpr std::array kWays = {Way{"Basic", NSURLAuthenticationMethodHTTPBasic, HTTPAuthentication::Basic},
                              Way{"Digest", NSURLAuthenticationMethodHTTPDigest, HTTPAuthentication::Digest}};

const Way* wayOf(const AuthenticationOffer& offer) {
  const auto* const way =
      std::ranges::find_if(kWays, [&offer](const Way& known) { return equalIgnoringASCIICase(offer.scheme, known.scheme); });
  return way == kWays.end() ? nullptr : way;
}

URLProtectionSpace spaceAt(const Origin& origin, const char* method, std::string realm) {
  return {origin.host, origin.port, origin.scheme, method, std::move(realm)};
}

}  // namespace

URLAuthenticationChallenge TrustQuestion::challenge(const Origin& origin) const {
  return {.protectionSpace = spaceAt(origin, NSURLAuthenticationMethodServerTrust, {}), .serverIsTrustedBySystem = trustedBySystem};
}

std::optional<CredentialQuestion> CredentialQuestion::of(std::shared_ptr<const URLResponse> reply) {
  CredentialQuestion question;
  question.offers_ = authenticationOffers(reply->valueForHTTPHeaderField("WWW-Authenticate").value_or(""));
  std::erase_if(question.offers_, [](const AuthenticationOffer& offer) { return wayOf(offer) == nullptr; });
  if (question.offers_.empty()) return std::nullopt;
  question.reply_ = std::move(reply);
  return question;
}

URLAuthenticationChallenge CredentialQuestion::challenge(const Origin& origin, int refused) const {
  const auto& offer = offers_[offer_];
  return {
      .protectionSpace = spaceAt(origin, wayOf(offer)->method, offer.realm), .previousFailureCount = refused, .failureResponse = reply_};
}

HTTPAuthentication CredentialQuestion::way() const { return wayOf(offers_[offer_])->authentication; }

}  // namespace platform::network
