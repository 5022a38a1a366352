#include "platform/network/message/URLRequest.h"

#include <utility>

namespace platform {

URLRequest::URLRequest(std::optional<platform::URL> url, URLRequestCachePolicy cachePolicy, double timeoutInterval)
    : url_(std::move(url)), cachePolicy_(cachePolicy), timeoutInterval_(timeoutInterval) {}

}  // namespace platform
