#include "platform/network/load/SessionCore.h"

#include <utility>

#include "platform/network/wire/NetworkThread.h"

namespace platform::network {

SessionCore::~SessionCore() {
  // Not even on the network thread at once: the last load may end inside the handle's own call.
  if (multi_) onNetworkThread([multi = std::move(multi_)]() mutable { multi.reset(); });
}

CurlMulti& SessionCore::multi() {
  if (!multi_) multi_ = std::make_shared<CurlMulti>(configuration_.HTTPMaximumConnectionsPerHost);
  return *multi_;
}

SessionCore::Trust SessionCore::trust(const Origin& origin) const {
  const auto found = trust_.find(origin);
  return found == trust_.end() ? Trust::Unknown : found->second;
}

}  // namespace platform::network
