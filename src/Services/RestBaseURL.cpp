#include "Services/RestBaseURL.h"

#include <fmt/format.h>

namespace kestrine {

const std::string& restBaseURL() {
  static const std::string& url = *new std::string("http://" KESTRINE_REST_HOST "/KestrineRestService/");
  return url;
}

std::optional<platform::URL> restAbsoluteURL(std::string_view path) {
  return platform::URL::URLWithString(fmt::format("{}{}", restBaseURL(), path));
}

}  // namespace kestrine
