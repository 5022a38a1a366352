#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include "platform/network/load/AuthenticateHeader.h"
#include "platform/network/message/URLAuthenticationChallenge.h"
#include "platform/network/wire/Exchange.h"
#include "platform/network/wire/Origin.h"

// The two questions that a load puts to somebody, and waits for the answer. Internal to the network room; one thread at a time.
namespace platform::network {

/// Whether a TLS server is to be trusted. Asked after a handshake alone; no exchange is left.
struct TrustQuestion {
  bool trustedBySystem = false;

  [[nodiscard]] URLAuthenticationChallenge challenge(const Origin& origin) const;
};

/// A server asks who we are: a reply of 401 whose "WWW-Authenticate" offers ways to say so. They are asked about one after another. The
/// reply is held back meanwhile, and is the task's when nobody wants any of them.
class CredentialQuestion {
 public:
  /// Nothing when the reply offers no way that we know.
  static std::optional<CredentialQuestion> of(std::shared_ptr<const URLResponse> reply);

  /// `refused`: credentials of this load that the server has refused.
  [[nodiscard]] URLAuthenticationChallenge challenge(const Origin& origin, int refused) const;
  /// The way that is asked about.
  [[nodiscard]] HTTPAuthentication way() const;
  /// On to the next way; false when there is none left.
  bool skipWay() { return ++offer_ < offers_.size(); }
  [[nodiscard]] const std::shared_ptr<const URLResponse>& reply() const { return reply_; }

  /// What became of the exchange meanwhile.
  std::optional<TransferEnd> end = {};

 private:
  std::shared_ptr<const URLResponse> reply_;
  std::vector<AuthenticationOffer> offers_;
  std::size_t offer_ = 0;
};

using LoadQuestion = std::variant<TrustQuestion, CredentialQuestion>;

}  // namespace platform::network
