#include "Services/RestJSON.h"

#include <fmt/format.h>

#include <exception>

#include "Services/RestBaseURL.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/log/Log.h"
#include "platform/network/message/URLError.h"

namespace kestrine {

namespace {

platform::Error jsonError(std::int64_t code, const std::exception& reason) { return {NSCocoaErrorDomain, code, reason.what()}; }

}  // namespace

RestBody restBody(const platform::Object& params) {
  try {
    return platform::prettyJSONText(params);
  } catch (const std::exception& reason) {
    return jsonError(NSPropertyListWriteInvalidError, reason);
  }
}

std::string restBodyLogged(const RestBody& body) { return body ? *body : std::string(); }

platform::Result<platform::Object, platform::Error> restParse(const platform::Bytes& data) {
  try {
    return platform::readJSON(data.text());
  } catch (const std::exception& reason) {
    return jsonError(NSPropertyListReadCorruptError, reason);
  }
}

platform::URLRequest restRequest(const std::string& path, const std::string& body) {
  platform::URLRequest request(restAbsoluteURL(path), platform::URLRequestCachePolicy::UseProtocolCachePolicy, kRestRequestSeconds);
  request.setValue_forHTTPHeaderField(fmt::format("{}", body.size()), "Content-Length");
  request.setHTTPMethod("POST");
  request.setHTTPBody(platform::Bytes(body));
  return request;
}

platform::URLRequest restJSONRequest(const std::string& path, const std::string& body) {
  platform::URLRequest request = restRequest(path, body);
  request.addValue_forHTTPHeaderField("application/json", "Content-Type");
  return request;
}

void restTaskCompleted(const std::optional<platform::Bytes>& data, const std::optional<platform::Error>& error,
                       const RestFinishedHandler& finished) {
  if (error) {
    platform::NSLog(fmt::format("error code ....{}", error->description()));
    // Callers have never been told of an unknown error; they time out by themselves.
    if (error->code == platform::NSURLErrorUnknown) {
      platform::NSLog("error code at rest connector strt async task......");
      return;
    }
    finished(*error, RestStatusNetworkError);
    platform::NSLog("network error");
    return;
  }
  const auto parsed = restParse(data.value_or(platform::Bytes()));
  platform::NSLog(fmt::format("response {}", (parsed ? *parsed : platform::Object()).description()));
  if (!parsed) return finished(parsed.error(), RestStatusResponseParseError);
  finished(*parsed, RestStatusSuccess);
}

}  // namespace kestrine
