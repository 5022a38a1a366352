#pragma once

#include <optional>
#include <string>

#include "platform/foundation/base/Result.h"
#include "platform/foundation/url/URL.h"
#include "platform/network/load/LoadFailure.h"
#include "platform/network/message/HTTPHeaders.h"
#include "platform/network/wire/Origin.h"

// Internal to the network room.
namespace platform::network {

/// Where a request goes, or why it cannot be sent: no address or one of another scheme, a method or a field that would not be one in the
/// head of a request. Asked before any connection is made. A function of its arguments.
Result<Origin, LoadFailure> checkRequest(const std::optional<URL>& url, const std::string& method, const HTTPHeaders& headers);

}  // namespace platform::network
