#include "platform/network/load/RequestCheck.h"

#include "platform/foundation/text/ASCII.h"
#include "platform/network/message/HTTPText.h"
#include "platform/network/message/URLError.h"

namespace platform::network {

Result<Origin, LoadFailure> checkRequest(const std::optional<URL>& url, const std::string& method, const HTTPHeaders& headers) {
  if (!url) return LoadFailure{NSURLErrorUnsupportedURL, "there is no address"};
  const auto address = url->absoluteString();
  const auto scheme = url->scheme();
  if (!equalIgnoringASCIICase(scheme, "http") && !equalIgnoringASCIICase(scheme, "https")) {
    return LoadFailure{NSURLErrorUnsupportedURL, address};
  }
  auto origin = originOf(address);
  if (!origin) return LoadFailure{NSURLErrorBadURL, address};
  if (!isHTTPToken(method)) return LoadFailure{NSURLErrorBadURL, "the method is no word of HTTP"};
  for (const auto& [name, value] : headers.fields()) {
    if (!isHTTPToken(name)) return LoadFailure{NSURLErrorBadURL, "a header field's name is no word of HTTP"};
    if (breaksHeaderLine(value)) {
      return LoadFailure{NSURLErrorBadURL, "the header field \"" + name + "\" holds a line end or a zero byte"};
    }
  }
  return *std::move(origin);
}

}  // namespace platform::network
