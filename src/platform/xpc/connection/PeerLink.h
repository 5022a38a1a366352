#pragma once

#include <memory>
#include <string>

#include "platform/xpc/connection/Link.h"

// Internal to the channel: the service's end.
namespace platform::xpc {

/// The link to one client. Its socket is there from the beginning, and when that ends the connection is over.
class PeerLink final : public Link {
 public:
  using Link::Link;
  void send(Outgoing outgoing) override REQUIRES(kIOThread);
  void connected(std::shared_ptr<Channel> channel) override REQUIRES(kIOThread);

 private:
  void ended(const std::string& reason) override REQUIRES(kIOThread);
};

}  // namespace platform::xpc
