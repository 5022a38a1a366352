#pragma once

#include <cstddef>

#include "platform/reachability/ReachabilityFlags.h"

namespace kestrine {

/// Whether the machine has a usable network connection, by a rule of its own: unlike Reachability it takes a directly attached network for
/// a connection, even when that would have to be made by hand. Class operations only. Any thread.
class NetWorkConnectionStatus {
 public:
  NetWorkConnectionStatus() = delete;

  /// Asks about the wildcard address. False when the platform refuses the target or its flags cannot be read. Each call leaves its target
  /// allocated for the life of the process: a few hundred bytes, no descriptor. Poll with Reachability instead.
  static bool ConectionStatus();

  /// The rule by which ConectionStatus judges.
  static bool connectionStatusForFlags(platform::NetworkReachabilityFlags flags);
  /// How many targets the calls have left so far.
  static std::size_t unreleasedTargetCount();
};

}  // namespace kestrine
