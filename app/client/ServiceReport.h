#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "contract/WatchState.h"
#include "platform/foundation/value/Object.h"

namespace kestrine {

/// One watch of the service.
struct WatchReport {
  std::int64_t number = 0;
  std::string folder;
  /// As the service tells it, which may be newer than this and know more states.
  std::string state;
  /// Why it failed.
  std::string reason;

  [[nodiscard]] bool is(WatchState wanted) const { return state == watchStateName(wanted); }
};

/// A flag that the service has to raise and cannot.
struct OwedFlagReport {
  platform::Date since;
  /// Why the last attempt failed. It goes on trying.
  std::string reason;
};

/// What the service says of itself.
struct ServiceReport {
  pid_t process = 0;
  std::optional<platform::Date> startedAt;
  std::vector<WatchReport> watches;
  std::optional<OwedFlagReport> owedFlag;
  /// One dictionary per event stream; see FSEventStream::status().
  platform::Array streams;
  /// All of the above as it arrived.
  platform::Object all;
};

/// Nullopt when the service does not run or does not answer within `limit`. Never starts it. Any thread.
std::optional<ServiceReport> askService(std::chrono::milliseconds limit);

}  // namespace kestrine
