#pragma once

#include <map>
#include <memory>

#include "platform/network/message/URLSessionConfiguration.h"
#include "platform/network/wire/CurlMulti.h"
#include "platform/network/wire/Origin.h"

namespace platform::network {

/// What the loads of one session share on the network thread: the multi handle with its connections, and what was decided about servers.
/// Made and let go of on any thread; everything else only on the network thread.
class SessionCore {
 public:
  explicit SessionCore(URLSessionConfiguration configuration) : configuration_(std::move(configuration)) {}
  ~SessionCore();
  SessionCore(const SessionCore&) = delete;
  SessionCore& operator=(const SessionCore&) = delete;

  [[nodiscard]] const URLSessionConfiguration& configuration() const { return configuration_; }
  CurlMulti& multi() REQUIRES(networkThread);

  enum class Trust { Unknown, AsTheSystemSays, Given };
  [[nodiscard]] Trust trust(const Origin& origin) const REQUIRES(networkThread);
  void setTrust(const Origin& origin, Trust trust) REQUIRES(networkThread) { trust_[origin] = trust; }

 private:
  const URLSessionConfiguration configuration_;
  std::shared_ptr<CurlMulti> multi_ GUARDED_BY(networkThread);
  std::map<Origin, Trust> trust_ GUARDED_BY(networkThread);
};

}  // namespace platform::network
