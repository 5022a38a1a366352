#pragma once

#include <memory>
#include <string>

#include "platform/foundation/process/StatusRegistry.h"
#include "platform/xpc/connection/Listener.h"

// Internal to the channel: what every service tells of itself when it is asked for its status. Each section stands while its registration
// lives. Threads: any.
namespace platform::xpc {

/// "process": {pid, startedAt, identifier}, where the start is the moment of this call.
StatusRegistry::Registration addProcessSection(const std::string& identifier);

/// "channel": {openSockets, peers, accepted}, the listener's statistics.
StatusRegistry::Registration addChannelSection(std::shared_ptr<const Listener> listener);

}  // namespace platform::xpc
