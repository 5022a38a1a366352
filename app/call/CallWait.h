#pragma once

#include <optional>
#include <vector>

#include "app/call/CallOperation.h"

namespace kestrine {

/// Calls the operation and serves the main run loop until it has answered. Nothing when it ends without an answer, as some do by design:
/// that is seen by its letting go of the handler. Only on the main thread.
std::optional<CallAnswer> callAndWait(const CallOperation& operation, const std::vector<PropertyValues>& records);

}  // namespace kestrine
