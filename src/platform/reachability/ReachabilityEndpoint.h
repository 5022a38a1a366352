#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/reachability/ReachabilityFlags.h"

namespace platform {

/// Where a reachability target points: an address or a host name. Internal to this room. A value; any thread.
class ReachabilityEndpoint {
 public:
  /// Nothing for what can be no target; see ReachabilityTarget.
  static std::optional<ReachabilityEndpoint> ofAddress(const sockaddr* address);
  static std::optional<ReachabilityEndpoint> ofName(std::string_view name);

  /// Whether reading the flags may take as long as a resolver does.
  [[nodiscard]] bool needsResolving() const { return std::holds_alternative<std::string>(place_); }
  /// See ReachabilityTarget::flags.
  [[nodiscard]] std::optional<NetworkReachabilityFlags> flags() const;

 private:
  using Place = std::variant<sockaddr_in, sockaddr_in6, std::string>;
  explicit ReachabilityEndpoint(Place place) : place_(std::move(place)) {}
  Place place_;
};

}  // namespace platform
