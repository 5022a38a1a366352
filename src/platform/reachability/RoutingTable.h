#pragma once

#include <netinet/in.h>

#include <map>
#include <optional>

#include "platform/reachability/NetlinkSocket.h"
#include "platform/reachability/ReachabilityFlags.h"

namespace platform {

/// The kernel's routing tables, read on demand. Internal to this room. Threads: one at a time; each question is answered with the state of
/// that moment.
class RoutingTable {
 public:
  /// Empty when there is no netlink socket to be had.
  static std::optional<RoutingTable> open();

  /// The flags of the network at large: of the default routes of both IP versions, in the tables that every lookup ends with.
  NetworkReachabilityFlags flagsOfDefaultRoutes();
  /// The flags of the route that a packet to `address` would take; 0 when the kernel knows none.
  NetworkReachabilityFlags flagsOfRouteTo(const sockaddr_in& address);
  NetworkReachabilityFlags flagsOfRouteTo(const sockaddr_in6& address);

 private:
  explicit RoutingTable(NetlinkSocket socket) : socket_(std::move(socket)) {}

  NetworkReachabilityFlags flagsOfDefaultRoutes(unsigned char family);
  NetworkReachabilityFlags flagsOfRouteTo(unsigned char family, const void* address, std::size_t length, unsigned interface);
  NetworkReachabilityFlags flagsOfRoute(unsigned char type, unsigned interface, bool hasGateway);
  /// The interface's IFF_... flags; 0 for one that is gone. Looked up once for each table.
  unsigned flagsOfInterface(unsigned interface);

  NetlinkSocket socket_;
  std::map<unsigned, unsigned> interfaces_;
};

}  // namespace platform
