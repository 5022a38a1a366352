#include "platform/reachability/ReachabilityEndpoint.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "platform/reachability/RoutingTable.h"

namespace platform {

namespace {

/// In the resolver's order, which is the order of preference (RFC 6724); none when it cannot be resolved.
std::vector<ReachabilityEndpoint> addressesOf(const std::string& name) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (getaddrinfo(name.c_str(), nullptr, &hints, &list) != 0) return {};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(list, &freeaddrinfo);
  std::vector<ReachabilityEndpoint> addresses;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (auto address = ReachabilityEndpoint::ofAddress(entry->ai_addr)) addresses.push_back(*std::move(address));
  }
  return addresses;
}

NetworkReachabilityFlags flagsOf(RoutingTable& table, const sockaddr_in& address) {
  return address.sin_addr.s_addr == INADDR_ANY ? table.flagsOfDefaultRoutes() : table.flagsOfRouteTo(address);
}

NetworkReachabilityFlags flagsOf(RoutingTable& table, const sockaddr_in6& address) {
  return IN6_IS_ADDR_UNSPECIFIED(&address.sin6_addr) ? table.flagsOfDefaultRoutes() : table.flagsOfRouteTo(address);
}

}  // namespace

std::optional<ReachabilityEndpoint> ReachabilityEndpoint::ofAddress(const sockaddr* address) {
  if (address == nullptr) return std::nullopt;
  // Copied, since a caller's record may have been laid out as bytes.
  if (address->sa_family == AF_INET) {
    sockaddr_in copy{};
    std::memcpy(&copy, address, sizeof copy);
    return ReachabilityEndpoint(copy);
  }
  if (address->sa_family == AF_INET6) {
    sockaddr_in6 copy{};
    std::memcpy(&copy, address, sizeof copy);
    return ReachabilityEndpoint(copy);
  }
  return std::nullopt;
}

std::optional<ReachabilityEndpoint> ReachabilityEndpoint::ofName(std::string_view name) {
  if (name.empty() || name.find('\0') != std::string_view::npos) return std::nullopt;
  const std::string text(name);
  sockaddr_in four{};
  four.sin_family = AF_INET;
  if (inet_pton(AF_INET, text.c_str(), &four.sin_addr) == 1) return ReachabilityEndpoint(four);
  sockaddr_in6 six{};
  six.sin6_family = AF_INET6;
  if (inet_pton(AF_INET6, text.c_str(), &six.sin6_addr) == 1) return ReachabilityEndpoint(six);
  return ReachabilityEndpoint(text);
}

std::optional<NetworkReachabilityFlags> ReachabilityEndpoint::flags() const {
  const auto* name = std::get_if<std::string>(&place_);
  const std::vector<ReachabilityEndpoint> addresses = name != nullptr ? addressesOf(*name) : std::vector{*this};
  auto table = RoutingTable::open();
  if (!table) return std::nullopt;
  for (const ReachabilityEndpoint& address : addresses) {
    const auto* six = std::get_if<sockaddr_in6>(&address.place_);
    const NetworkReachabilityFlags flags = six != nullptr ? flagsOf(*table, *six) : flagsOf(*table, std::get<sockaddr_in>(address.place_));
    if (flags != 0) return flags;
  }
  return 0;
}

}  // namespace platform
