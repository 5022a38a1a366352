#include "platform/network/wire/Origin.h"

#include <curl/curl.h>

#include <cstdlib>
#include <memory>

#include "platform/foundation/text/ASCII.h"

namespace platform::network {

namespace {

struct Releaser {
  void operator()(CURLU* address) const { curl_url_cleanup(address); }
  void operator()(char* text) const { curl_free(text); }
};
using Address = std::unique_ptr<CURLU, Releaser>;

std::string part(const Address& address, CURLUPart which, unsigned flags = 0) {
  char* text = nullptr;
  if (curl_url_get(address.get(), which, &text, flags) != CURLUE_OK) return {};
  const std::unique_ptr<char, Releaser> owned(text);
  return text;
}

}  // namespace

std::optional<Origin> originOf(const std::string& url) {
  // libcurl lets one slash or three pass for two.
  const auto slashes = url.find("://");
  if (slashes == std::string::npos || url.compare(slashes + 3, 1, "/") == 0) return std::nullopt;
  const Address address(curl_url());
  if (!address || curl_url_set(address.get(), CURLUPART_URL, url.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK) return std::nullopt;
  Origin origin{part(address, CURLUPART_SCHEME), part(address, CURLUPART_HOST),
                std::atoi(part(address, CURLUPART_PORT, CURLU_DEFAULT_PORT).c_str())};
  if ((origin.scheme != "http" && origin.scheme != "https") || origin.host.empty()) return std::nullopt;
  origin.host = asciiLowered(origin.host);
  return origin;
}

std::string resolvedLocation(const std::string& from, const std::string& location) {
  const Address address(curl_url());
  constexpr unsigned kFlags = CURLU_PATH_AS_IS | CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE;
  if (!address || curl_url_set(address.get(), CURLUPART_URL, from.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK) return {};
  if (curl_url_set(address.get(), CURLUPART_URL, location.c_str(), kFlags) != CURLUE_OK) return {};
  return part(address, CURLUPART_URL);
}

}  // namespace platform::network
