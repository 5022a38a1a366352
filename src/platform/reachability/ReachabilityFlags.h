#pragma once

#include <cstdint>

namespace platform {

/// What is known about the way to a network target: a mask of the bits below. The names and the values are the platform's.
using NetworkReachabilityFlags = std::uint32_t;

/// The way leads over a point-to-point link, such as a tunnel.
inline constexpr NetworkReachabilityFlags kSCNetworkReachabilityFlagsTransientConnection = 0x1;
/// There is a way. It says nothing about whether the target answers.
inline constexpr NetworkReachabilityFlags kSCNetworkReachabilityFlagsReachable = 0x2;
/// A connection must be made first. Linux routes know no such state, so no target has this bit or one of the next three here.
inline constexpr NetworkReachabilityFlags kSCNetworkReachabilityFlagsConnectionRequired = 0x4;
/// Traffic to the target would make that connection.
inline constexpr NetworkReachabilityFlags kSCNetworkReachabilityFlagsConnectionOnTraffic = 0x8;
/// Somebody must do something (give a password) to make it.
inline constexpr NetworkReachabilityFlags kSCNetworkReachabilityFlagsInterventionRequired = 0x10;
/// A program that asks for it would make it.
inline constexpr NetworkReachabilityFlags kSCNetworkReachabilityFlagsConnectionOnDemand = 0x20;
/// The target is an address of this machine.
inline constexpr NetworkReachabilityFlags kSCNetworkReachabilityFlagsIsLocalAddress = 0x10000;
/// The target is on a network that this machine is attached to: no gateway lies between.
inline constexpr NetworkReachabilityFlags kSCNetworkReachabilityFlagsIsDirect = 0x20000;

}  // namespace platform
