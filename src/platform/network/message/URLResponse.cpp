#include "platform/network/message/URLResponse.h"

#include <charconv>
#include <utility>

#include "platform/foundation/text/ASCII.h"

namespace platform {

URLResponse::URLResponse(platform::URL url, int statusCode, HTTPHeaders headers)
    : url_(std::move(url)), statusCode_(statusCode), headers_(std::move(headers)) {}

std::string URLResponse::MIMEType() const {
  const auto type = headers_.value("Content-Type").value_or("");
  return asciiLowered(trimmed(std::string_view(type).substr(0, type.find(';'))));
}

std::string URLResponse::textEncodingName() const {
  const auto type = headers_.value("Content-Type").value_or("");
  std::string_view rest = type;
  for (auto end = rest.find(';'); end != std::string_view::npos; end = rest.find(';')) {
    rest.remove_prefix(end + 1);
    const auto parameter = trimmed(rest.substr(0, rest.find(';')));
    const auto equals = parameter.find('=');
    if (equals == std::string_view::npos || !equalIgnoringASCIICase(parameter.substr(0, equals), "charset")) continue;
    auto value = parameter.substr(equals + 1);
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
    return asciiLowered(value);
  }
  return {};
}

std::int64_t URLResponse::expectedContentLength() const {
  if (headers_.contains("Transfer-Encoding") || headers_.contains("Content-Encoding")) return kUnknownLength;
  const auto text = headers_.value("Content-Length").value_or("");
  const auto digits = trimmed(text);
  std::int64_t length = 0;
  const auto [end, failed] = std::from_chars(digits.data(), digits.data() + digits.size(), length);
  return failed == std::errc() && end == digits.data() + digits.size() && length >= 0 ? length : kUnknownLength;
}

std::string URLResponse::description() const {
  std::string text =
      "<HTTPURLResponse> { URL: " + url_.absoluteString() + " } { Status Code: " + std::to_string(statusCode_) + ", Headers {";
  const char* separator = " ";
  for (const auto& [name, value] : headers_.fields()) {
    text.append(std::exchange(separator, "; ")).append(name).append(" = ").append(value);
  }
  return text + " } }";
}

}  // namespace platform
