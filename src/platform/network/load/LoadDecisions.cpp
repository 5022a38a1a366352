#include <array>
#include <utility>

#include "platform/foundation/text/ASCII.h"
#include "platform/network/load/Load.h"
#include "platform/network/wire/NetworkThread.h"

// What a load does about redirects and challenges.
namespace platform::network {

namespace {

constexpr int kRedirectsAtMost = 20;

struct Method {
  const char* scheme;
  const char* name;
  long curlName;
};
constexpr std::array kMethods = {Method{"Basic", NSURLAuthenticationMethodHTTPBasic, CURLAUTH_BASIC},
                                 Method{"Digest", NSURLAuthenticationMethodHTTPDigest, CURLAUTH_DIGEST}};

const Method* methodOf(const AuthenticationOffer& offer) {
  for (const auto& method : kMethods) {
    if (equalIgnoringASCIICase(offer.scheme, method.scheme)) return &method;
  }
  return nullptr;
}

bool redirects(int status) { return status == 301 || status == 302 || status == 303 || status == 307 || status == 308; }

bool goesOnAsGET(int status, const std::string& method) {
  return status == 303 ? method != "GET" && method != "HEAD" : (status == 301 || status == 302) && method == "POST";
}

}  // namespace

// Whether the reply is a redirect; sets up the next exchange, or the failure.
bool Load::redirect(const URLResponse& response) {
  const auto location = response.valueForHTTPHeaderField("Location");
  if (!redirects(response.statusCode()) || !location || location->empty()) return false;
  const auto target = resolvedLocation(next_.url, *location);
  const auto origin = originOf(target);
  if (redirects_++ == kRedirectsAtMost) {
    failure_ = error(NSURLErrorHTTPTooManyRedirects);
  } else if (target.empty()) {
    failure_ = error(NSURLErrorBadURL, "the redirect's address: " + *location);
  } else if (!origin) {
    failure_ = error(NSURLErrorUnsupportedURL, "the redirect's address: " + target);
  }
  if (failure_) return true;
  if (goesOnAsGET(response.statusCode(), next_.method)) {
    next_.method = "GET";
    next_.body.reset();
    for (const char* name : {"Content-Type", "Content-Encoding", "Content-Language", "Content-Location"}) next_.headers.remove(name);
  }
  if (*origin != origin_) {
    for (const char* name : {"Authorization", "Cookie", "Host"}) next_.headers.remove(name);
  }
  next_.url = target;
  next_.authentication = 0;
  origin_ = *origin;
  return true;
}

void Load::askForCredential(std::shared_ptr<const URLResponse> response) {
  if (next_.authentication != 0) ++refusedCredentials_;
  auto offers = authenticationOffers(response->valueForHTTPHeaderField("WWW-Authenticate").value_or(""));
  std::erase_if(offers, [](const AuthenticationOffer& offer) { return methodOf(offer) == nullptr; });
  if (offers.empty()) return accept(std::move(response));
  question_.emplace();
  question_->offers = std::move(offers);
  question_->response = std::move(response);
  askForOffer();
}

void Load::askForOffer() {
  const auto& offer = question_->offers[question_->offer];
  ask({.protectionSpace = {origin_.host, origin_.port, origin_.scheme, methodOf(offer)->name, offer.realm},
       .previousFailureCount = refusedCredentials_,
       .failureResponse = question_->response});
}

void Load::askForTrust(bool trustedBySystem) {
  question_.emplace();
  question_->ofTrust = true;
  question_->trustedBySystem = trustedBySystem;
  ask({.protectionSpace = {origin_.host, origin_.port, origin_.scheme, NSURLAuthenticationMethodServerTrust, {}},
       .serverIsTrustedBySystem = trustedBySystem});
}

void Load::ask(const URLAuthenticationChallenge& challenge) {
  const auto serial = ++questions_;
  question_->serial = serial;
  client_->challenged(challenge,
                      [weak = weak_from_this(), serial](Disposition disposition, const std::optional<URLCredential>& credential) {
                        onNetworkThread([weak, serial, disposition, credential] {
                          if (const auto self = weak.lock()) self->answered(serial, disposition, credential);
                        });
                      });
}

void Load::answered(std::uint64_t serial, Disposition disposition, const std::optional<URLCredential>& credential) {
  if (phase_ == Phase::Ended || !question_ || question_->serial != serial) return;
  lastActivity_ = Clock::now();
  if (disposition == Disposition::CancelAuthenticationChallenge) return finish(error(NSURLErrorCancelled));
  if (disposition == Disposition::UseCredential && !credential) disposition = Disposition::PerformDefaultHandling;
  if (question_->ofTrust) return trustAnswered(disposition, credential);
  credentialAnswered(disposition, credential);
}

void Load::trustAnswered(Disposition disposition, const std::optional<URLCredential>& credential) {
  const bool given = disposition == Disposition::UseCredential && credential->trust;
  const bool trusted = question_->trustedBySystem;
  question_.reset();
  if (!given && !trusted) return finish(error(NSURLErrorServerCertificateUntrusted));
  core_->setTrust(origin_, given ? SessionCore::Trust::Given : SessionCore::Trust::AsTheSystemSays);
  nextExchange();
}

void Load::credentialAnswered(Disposition disposition, const std::optional<URLCredential>& credential) {
  if (disposition == Disposition::RejectProtectionSpace && ++question_->offer < question_->offers.size()) return askForOffer();
  if (disposition != Disposition::UseCredential) return takeReplyAsItIs();
  next_.authentication = methodOf(question_->offers[question_->offer])->curlName;
  next_.user = credential->user;
  next_.password = credential->password;
  const auto end = question_->end;
  question_.reset();
  discarding_ = true;
  if (!end) return exchange_->goOn();
  exchange_.reset();
  settle(*end);
}

void Load::takeReplyAsItIs() {
  const auto question = std::exchange(question_, std::nullopt);
  accept(question->response);
  if (!question->end) return exchange_->goOn();
  exchange_.reset();
  settle(*question->end);
}

}  // namespace platform::network
