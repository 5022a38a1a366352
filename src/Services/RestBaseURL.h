#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/url/URL.h"

namespace kestrine {

/// "http://HOST/KestrineRestService/", HOST being what the build was configured with (KESTRINE_REST_HOST: host and optional port). The one
/// place that both transports have it from.
const std::string& restBaseURL();

/// The base URL with `path` behind it, joined as they stand: nothing is escaped here, and a path that begins with "/" gives two of them.
/// Nothing when that text is no URL.
std::optional<platform::URL> restAbsoluteURL(std::string_view path);

/// After how many seconds without a byte a request to the server is given up, an upload too.
inline constexpr double kRestRequestSeconds = 60;

}  // namespace kestrine
