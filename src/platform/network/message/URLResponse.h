#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/url/URL.h"
#include "platform/network/message/HTTPHeaders.h"

namespace platform {

/// The head of an HTTP reply: what came before its body. Immutable and shared; any thread.
class URLResponse {
 public:
  static constexpr std::int64_t kUnknownLength = -1;

  URLResponse(platform::URL url, int statusCode, HTTPHeaders headers);

  /// The address that answered, after redirects.
  [[nodiscard]] const platform::URL& URL() const { return url_; }
  [[nodiscard]] int statusCode() const { return statusCode_; }
  [[nodiscard]] std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const { return headers_.value(field); }
  /// The type and subtype in lower case, without parameters ("application/json"); empty when the reply names none.
  [[nodiscard]] std::string MIMEType() const;
  /// The value of "charset" in lower case; empty when there is none.
  [[nodiscard]] std::string textEncodingName() const;
  /// What "Content-Length" says of the body as it is delivered; unknown for a chunked or an encoded one.
  [[nodiscard]] std::int64_t expectedContentLength() const;
  /// What "%@" prints, on one line: address, status and header fields.
  [[nodiscard]] std::string description() const;

 private:
  platform::URL url_;
  int statusCode_;
  HTTPHeaders headers_;
};

}  // namespace platform
