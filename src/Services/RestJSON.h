#pragma once

#include <optional>
#include <string>

#include "Services/RestResult.h"
#include "platform/foundation/base/Result.h"
#include "platform/foundation/value/Object.h"
#include "platform/network/message/URLRequest.h"

namespace kestrine {

// What the two transports have in common: requests whose body is JSON, and the end of a request whose answer is JSON. Internal to this
// room; any thread.

/// The domain and the codes of errors about JSON text.
inline constexpr const char* NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::int64_t NSPropertyListReadCorruptError = 3840;
inline constexpr std::int64_t NSPropertyListWriteInvalidError = 3851;

/// Parameters as JSON text for people, or why they have none.
using RestBody = platform::Result<std::string, platform::Error>;
RestBody restBody(const platform::Object& params);
/// What the log says of a body: its text, or nothing.
std::string restBodyLogged(const RestBody& body);

/// The answer as a value, or why it is none.
platform::Result<platform::Object, platform::Error> restParse(const platform::Bytes& data);

/// The POST of `body` to `path` below the base URL, without a content type.
platform::URLRequest restRequest(const std::string& path, const std::string& body);
/// The same with the content type of JSON added.
platform::URLRequest restJSONRequest(const std::string& path, const std::string& body);

/// Ends an ordinary request: logs, and calls `finished` with the parsed answer or the error. An error with the code of an unknown one is
/// logged only.
void restTaskCompleted(const std::optional<platform::Bytes>& data, const std::optional<platform::Error>& error,
                       const RestFinishedHandler& finished);

}  // namespace kestrine
