#pragma once

#include "platform/xpc/value/Value.h"

namespace platform::xpc {

/// What a service's end of the channel answers to a status request: the sections of StatusRegistry::shared(). Calls the functions that were
/// registered there. Any thread.
[[nodiscard]] Value statusAnswer();

}  // namespace platform::xpc
