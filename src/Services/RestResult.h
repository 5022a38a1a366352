#pragma once

#include <functional>
#include <memory>
#include <variant>

#include "Services/RestTaskStatus.h"
#include "platform/foundation/base/Error.h"
#include "platform/foundation/value/Object.h"
#include "platform/network/message/Bytes.h"
#include "platform/network/message/URLResponse.h"

namespace kestrine {

/// What a transport hands to a finished block: with status 0 the JSON value that the server answered, otherwise the error, or nil (the
/// object that is nil) when there is nothing to say, as without a network.
using RestResult = std::variant<platform::Object, platform::Error>;

/// The same where the answer is not read as JSON: nothing (nil), the body, or the error.
using RestDataResult = std::variant<std::monostate, platform::Bytes, platform::Error>;

/// Taken and kept by every start method; nothing calls it.
using RestProgressHandler = std::function<void(double fraction)>;

using RestFinishedHandler = std::function<void(const RestResult& result, RestTaskStatus status)>;
using RestDataFinishedHandler = std::function<void(const RestDataResult& data, RestTaskStatus status)>;
using RestResponseFinishedHandler =
    std::function<void(const std::shared_ptr<const platform::URLResponse>& response, const RestDataResult& data, RestTaskStatus status)>;

}  // namespace kestrine
