#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/foundation/value/Object.h"

namespace platform::xpc {

/// What the running service `name` says of itself: section name to array of what its parts describe (see StatusRegistry). Numbers arrive as
/// booleans, 64-bit integers and doubles. Nullopt when the service does not run or does not answer within `timeout`; the reason of anything
/// but "not running" is logged. Never starts a service, not through a socket of systemd's either; asks the channel itself, so no handler of
/// the service is involved. Blocks. Any thread.
[[nodiscard]] std::optional<Object> queryServiceStatus(const std::string& name, std::chrono::milliseconds timeout);

}  // namespace platform::xpc
