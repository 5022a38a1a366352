#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "Services/RestTaskStatus.h"
#include "platform/foundation/base/Error.h"
#include "platform/network/message/Bytes.h"
#include "platform/network/message/URLResponse.h"

namespace kestrine {

/// What an operation hands to its caller besides the status: with status 0 the answer, else the transport's error, or neither of them where
/// there was no network and nothing was sent.
template <class Result>
struct RestAnswer {
  std::optional<Result> result = {};
  std::optional<platform::Error> error = {};
};

/// Called at most once. `Result` is the operation's record, or what stands in its place.
template <class Result>
using RestHandler = std::function<void(const RestAnswer<Result>& answer, RestTaskStatus status)>;

/// For the operation whose answer is handed over as it came: head and body with status 0, neither of them else.
using RestStreamHandler = std::function<void(const std::shared_ptr<const platform::URLResponse>& response,
                                             const std::optional<platform::Bytes>& data, RestTaskStatus status)>;

}  // namespace kestrine
