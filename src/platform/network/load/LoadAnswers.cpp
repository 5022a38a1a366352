// How a load asks about a server's certificate and about a 401, and what it does with the answer.

#include <utility>

#include "platform/network/load/Load.h"
#include "platform/network/wire/NetworkThread.h"

namespace platform::network {

bool Load::askForCredential(const std::shared_ptr<const URLResponse>& reply) {
  if (next_.authentication != HTTPAuthentication::None) ++refusedCredentials_;
  auto question = CredentialQuestion::of(reply);
  if (!question) return false;
  const auto challenge = question->challenge(origin_, refusedCredentials_);
  question_ = *std::move(question);
  ask(Phase::AskingCredential, challenge);
  return true;
}

void Load::askForTrust(bool trustedBySystem) {
  const TrustQuestion question{trustedBySystem};
  question_ = question;
  ask(Phase::AskingTrust, question.challenge(origin_));
}

void Load::ask(Phase phase, const URLAuthenticationChallenge& challenge) {
  phase_ = phase;
  const auto serial = ++questions_;
  client_->challenged(challenge,
                      [weak = weak_from_this(), serial](Disposition disposition, const std::optional<URLCredential>& credential) {
                        onNetworkThread([weak, serial, disposition, credential] {
                          assertOnNetworkThread();
                          if (const auto self = weak.lock()) self->answered(serial, disposition, credential);
                        });
                      });
}

void Load::answered(std::uint64_t serial, Disposition disposition, const std::optional<URLCredential>& credential) {
  if (phase_ == Phase::Ended || !question_ || questions_ != serial) return;
  timeouts_.heard(Clock::now());
  if (disposition == Disposition::CancelAuthenticationChallenge) return finish(error(NSURLErrorCancelled));
  if (disposition == Disposition::UseCredential && !credential) disposition = Disposition::PerformDefaultHandling;
  auto question = *std::exchange(question_, std::nullopt);
  if (const auto* ofTrust = std::get_if<TrustQuestion>(&question)) {
    return trustAnswered(*ofTrust, disposition == Disposition::UseCredential && credential->trust);
  }
  credentialAnswered(std::get<CredentialQuestion>(std::move(question)), disposition, credential);
}

void Load::trustAnswered(const TrustQuestion& question, bool given) {
  if (!given && !question.trustedBySystem) return finish(error(NSURLErrorServerCertificateUntrusted));
  core_->setTrust(origin_, given ? SessionCore::Trust::Given : SessionCore::Trust::AsTheSystemSays);
  nextExchange();
}

void Load::credentialAnswered(CredentialQuestion question, Disposition disposition, const std::optional<URLCredential>& credential) {
  if (disposition == Disposition::RejectProtectionSpace && question.skipWay()) {
    const auto challenge = question.challenge(origin_, refusedCredentials_);
    question_ = std::move(question);
    return ask(Phase::AskingCredential, challenge);
  }
  if (disposition != Disposition::UseCredential) {
    client_->responseArrived(question.reply());
    return leaveQuestion(Phase::Transferring, question.end);
  }
  next_.authentication = question.way();
  next_.user = credential->user;
  next_.password = credential->password;
  discarded_ = 0;
  leaveQuestion(Phase::Discarding, question.end);
}

// `end`: what the exchange came to while the answer was awaited.
void Load::leaveQuestion(Phase phase, const std::optional<TransferEnd>& end) {
  phase_ = phase;
  if (!end) return exchange_->goOn();
  exchange_.reset();
  settle(*end);
}

}  // namespace platform::network
