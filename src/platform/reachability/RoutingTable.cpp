#include "platform/reachability/RoutingTable.h"

#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <array>
#include <utility>
#include <vector>

namespace platform {

namespace {

/// A request of one fixed header and a few small attributes.
class Request {
 public:
  Request(std::uint16_t type, std::uint16_t flags) : header_(mnl_nlmsg_put_header(buffer_.data())) {
    header_->nlmsg_type = type;
    header_->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  template <class Header>
  Header& put() {
    return *static_cast<Header*>(mnl_nlmsg_put_extra_header(header_, sizeof(Header)));
  }
  void put(std::uint16_t attribute, const void* bytes, std::size_t length) { mnl_attr_put(header_, attribute, length, bytes); }
  void put(std::uint16_t attribute, std::uint32_t value) { mnl_attr_put_u32(header_, attribute, value); }
  nlmsghdr& header() { return *header_; }

 private:
  alignas(nlmsghdr) std::array<char, 256> buffer_{};
  nlmsghdr* header_;
};

/// One way out: an interface, and whether a gateway stands behind it.
struct Hop {
  unsigned interface = 0;
  bool hasGateway = false;
};

/// What matters of one route.
struct Route {
  unsigned char type = RTN_UNSPEC;
  unsigned char destinationLength = 0;
  unsigned table = RT_TABLE_UNSPEC;
  std::vector<Hop> hops;
};

constexpr unsigned kUnusable = RTNH_F_DEAD | RTNH_F_LINKDOWN;

bool isGateway(std::uint16_t attribute) { return attribute == RTA_GATEWAY || attribute == RTA_VIA; }

template <class Visit>
void forEachAttribute(const void* first, std::size_t length, Visit visit) {
  const auto* attribute = static_cast<const nlattr*>(first);
  int left = static_cast<int>(length);
  while (mnl_attr_ok(attribute, left)) {
    visit(*attribute);
    left -= static_cast<int>(MNL_ALIGN(attribute->nla_len));
    attribute = mnl_attr_next(attribute);
  }
}

/// The ways of a multipath route: each a header and attributes of its own.
std::vector<Hop> hopsIn(const nlattr& multipath) {
  std::vector<Hop> hops;
  const auto* next = static_cast<const rtnexthop*>(mnl_attr_get_payload(&multipath));
  int left = mnl_attr_get_payload_len(&multipath);
  while (RTNH_OK(next, left)) {
    Hop hop{static_cast<unsigned>(next->rtnh_ifindex), false};
    forEachAttribute(RTNH_DATA(next), next->rtnh_len - sizeof(rtnexthop),
                     [&hop](const nlattr& attribute) { hop.hasGateway |= isGateway(mnl_attr_get_type(&attribute)); });
    if ((next->rtnh_flags & kUnusable) == 0) hops.push_back(hop);
    left -= RTNH_ALIGN(next->rtnh_len);
    next = RTNH_NEXT(next);
  }
  return hops;
}

Route routeIn(const nlmsghdr& message) {
  const auto* header = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(&message));
  Route route{header->rtm_type, header->rtm_dst_len, header->rtm_table, {}};
  Hop only;
  const auto take = [&route, &only](const nlattr& attribute) {
    const std::uint16_t type = mnl_attr_get_type(&attribute);
    if (type == RTA_TABLE) route.table = mnl_attr_get_u32(&attribute);
    if (type == RTA_OIF) only.interface = mnl_attr_get_u32(&attribute);
    if (isGateway(type)) only.hasGateway = true;
    if (type == RTA_MULTIPATH) route.hops = hopsIn(attribute);
  };
  forEachAttribute(mnl_nlmsg_get_payload_offset(&message, sizeof(rtmsg)), mnl_nlmsg_get_payload_len(&message) - NLMSG_ALIGN(sizeof(rtmsg)),
                   take);
  if (only.interface != 0 && (header->rtm_flags & kUnusable) == 0) route.hops.push_back(only);
  return route;
}

bool isGeneralDefault(const Route& route) {
  const bool general = route.table == RT_TABLE_MAIN || route.table == RT_TABLE_DEFAULT;
  return general && route.destinationLength == 0 && route.type == RTN_UNICAST;
}

}  // namespace

std::optional<RoutingTable> RoutingTable::open() {
  auto socket = NetlinkSocket::open();
  if (!socket) return std::nullopt;
  return RoutingTable(*std::move(socket));
}

NetworkReachabilityFlags RoutingTable::flagsOfDefaultRoutes() {
  const NetworkReachabilityFlags flags = flagsOfDefaultRoutes(AF_INET);
  return flags != 0 ? flags : flagsOfDefaultRoutes(AF_INET6);
}

NetworkReachabilityFlags RoutingTable::flagsOfDefaultRoutes(unsigned char family) {
  Request request(RTM_GETROUTE, NLM_F_DUMP);
  request.put<rtmsg>().rtm_family = family;
  std::vector<Hop> hops;
  socket_.ask(request.header(), [&hops](const nlmsghdr& message) {
    const Route route = routeIn(message);
    if (isGeneralDefault(route)) hops.insert(hops.end(), route.hops.begin(), route.hops.end());
  });
  NetworkReachabilityFlags best = 0;
  for (const Hop& hop : hops) {
    // Behind a default route lies everything, whether or not it names a gateway, so it makes nothing direct.
    const NetworkReachabilityFlags flags = flagsOfRoute(RTN_UNICAST, hop.interface, true);
    if (best == 0 || flags == kSCNetworkReachabilityFlagsReachable) best = flags;
  }
  return best;
}

NetworkReachabilityFlags RoutingTable::flagsOfRouteTo(const sockaddr_in& address) {
  return flagsOfRouteTo(AF_INET, &address.sin_addr, sizeof address.sin_addr, 0);
}

NetworkReachabilityFlags RoutingTable::flagsOfRouteTo(const sockaddr_in6& address) {
  return flagsOfRouteTo(AF_INET6, &address.sin6_addr, sizeof address.sin6_addr, address.sin6_scope_id);
}

NetworkReachabilityFlags RoutingTable::flagsOfRouteTo(unsigned char family, const void* address, std::size_t length, unsigned interface) {
  Request request(RTM_GETROUTE, 0);
  auto& header = request.put<rtmsg>();
  header.rtm_family = family;
  header.rtm_dst_len = static_cast<unsigned char>(length * 8);
  request.put(RTA_DST, address, length);
  if (interface != 0) request.put(RTA_OIF, interface);
  std::optional<Route> route;
  // No route is an error of the question: ENETUNREACH, or EACCES and EINVAL for a forbidden and a swallowed one.
  if (socket_.ask(request.header(), [&route](const nlmsghdr& message) { route = routeIn(message); }) != 0) return 0;
  if (!route || route->hops.empty()) return 0;
  const Hop& hop = route->hops.front();
  return flagsOfRoute(route->type, hop.interface, hop.hasGateway);
}

NetworkReachabilityFlags RoutingTable::flagsOfRoute(unsigned char type, unsigned interface, bool hasGateway) {
  const unsigned device = flagsOfInterface(interface);
  // The kernel takes the routes of an interface away after it has told that it went down, and keeps those of one without a carrier.
  const bool alive = (device & IFF_UP) != 0 && (device & IFF_RUNNING) != 0;
  if (!alive) return 0;
  switch (type) {
    case RTN_LOCAL:
      return kSCNetworkReachabilityFlagsReachable | kSCNetworkReachabilityFlagsIsLocalAddress | kSCNetworkReachabilityFlagsIsDirect;
    case RTN_UNICAST:
    case RTN_BROADCAST:
    case RTN_ANYCAST:
    case RTN_MULTICAST:
      break;
    default:
      return 0;
  }
  if ((device & IFF_POINTOPOINT) != 0) return kSCNetworkReachabilityFlagsReachable | kSCNetworkReachabilityFlagsTransientConnection;
  if (hasGateway) return kSCNetworkReachabilityFlagsReachable;
  return kSCNetworkReachabilityFlagsReachable | kSCNetworkReachabilityFlagsIsDirect;
}

unsigned RoutingTable::flagsOfInterface(unsigned interface) {
  const auto known = interfaces_.find(interface);
  if (known != interfaces_.end()) return known->second;
  Request request(RTM_GETLINK, 0);
  request.put<ifinfomsg>().ifi_index = static_cast<int>(interface);
  request.put(IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
  unsigned flags = 0;
  socket_.ask(request.header(),
              [&flags](const nlmsghdr& message) { flags = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message))->ifi_flags; });
  return interfaces_[interface] = flags;
}

}  // namespace platform
