#pragma once

#include <string>
#include <string_view>
#include <vector>

// Internal to the network room.
namespace platform::network {

struct AuthenticationOffer {
  /// As it is written: "Basic".
  std::string scheme;
  std::string realm;
};

/// The challenges of a "WWW-Authenticate" field, also of several joined by ',' (RFC 9110, section 11.6.1), in their order. What makes no
/// sense is left out.
std::vector<AuthenticationOffer> authenticationOffers(std::string_view field);

}  // namespace platform::network
