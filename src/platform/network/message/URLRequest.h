#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/url/URL.h"
#include "platform/network/message/Bytes.h"
#include "platform/network/message/HTTPHeaders.h"

namespace platform {

/// Where a request may be answered from. There is no cache here, so all of them ask the server.
enum class URLRequestCachePolicy { UseProtocolCachePolicy = 0, ReloadIgnoringLocalCacheData = 1 };

/// An HTTP request as it is to be sent: address, method, header fields, body, time-out. A value; a session copies it when a task is made.
///
/// On the wire goes what is asked for here and in the session's configuration, and what HTTP needs: "Host", "Content-Length" (of the body,
/// whatever the field here says; "Transfer-Encoding" is likewise ours), and "Accept-Encoding: gzip, deflate" unless the field is set here.
/// No "User-Agent", "Accept", "Accept-Language", "Expect" or "Content-Type" is made up.
///
/// A field whose name is no HTTP token, or whose value holds CR, LF or NUL, makes the task fail with NSURLErrorBadURL before anything is
/// sent: such a value would be a second header in disguise.
class URLRequest {
 public:
  /// `url` may be nothing, as `URL::URLWithString` returns it: the task then fails with NSURLErrorUnsupportedURL.
  explicit URLRequest(std::optional<platform::URL> url, URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::UseProtocolCachePolicy,
                      double timeoutInterval = 60);

  [[nodiscard]] const std::optional<platform::URL>& URL() const { return url_; }
  [[nodiscard]] URLRequestCachePolicy cachePolicy() const { return cachePolicy_; }

  /// Seconds of silence after which the task fails; the session's time-out holds too, so the shorter one decides.
  [[nodiscard]] double timeoutInterval() const { return timeoutInterval_; }
  void setTimeoutInterval(double seconds) { timeoutInterval_ = seconds; }

  /// "GET" until set. Sent as it is written.
  [[nodiscard]] const std::string& HTTPMethod() const { return method_; }
  void setHTTPMethod(std::string_view method) { method_ = method; }

  /// Replaces the field.
  void setValue_forHTTPHeaderField(std::string_view value, std::string_view field) { headers_.set(field, value); }
  /// Appends to the field, separated by ','.
  void addValue_forHTTPHeaderField(std::string_view value, std::string_view field) { headers_.add(field, value); }
  [[nodiscard]] std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const { return headers_.value(field); }
  [[nodiscard]] const HTTPHeaders& allHTTPHeaderFields() const { return headers_; }

  /// The body; nothing for none. For one that lies in a file see `Bytes`.
  [[nodiscard]] const std::optional<Bytes>& HTTPBody() const { return body_; }
  void setHTTPBody(std::optional<Bytes> body) { body_ = std::move(body); }

 private:
  std::optional<platform::URL> url_;
  URLRequestCachePolicy cachePolicy_;
  double timeoutInterval_;
  std::string method_ = "GET";
  HTTPHeaders headers_;
  std::optional<Bytes> body_;
};

}  // namespace platform
