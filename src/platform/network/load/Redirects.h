#pragma once

#include "platform/foundation/base/Result.h"
#include "platform/network/load/LoadFailure.h"
#include "platform/network/message/URLResponse.h"
#include "platform/network/wire/Exchange.h"
#include "platform/network/wire/Origin.h"

// Internal to the network room.
namespace platform::network {

/// What one load does about replies that redirect it (RFC 9110, section 15.4); what the rules are, URLSession.h says. One thread at a time.
class Redirects {
 public:
  /// Whether the reply leads somewhere else. One without a "Location" is a reply as any other.
  static bool isOne(const URLResponse& reply);

  /// Makes of `request`, which went to `from` and got `reply`, the one that follows: address, method, body and fields. Where that goes; or
  /// why nothing follows, and then `request` is as it was.
  Result<Origin, LoadFailure> follow(const URLResponse& reply, const Origin& from, Exchange::Request& request);

 private:
  int met_ = 0;
};

}  // namespace platform::network
