// Any text is a URL or none. One that is stays the same when its text is read again, and each of its parts can be asked for.
#include "platform/foundation/url/URL.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto url = platform::URL::URLWithString(text);
  if (!url) return 0;
  if (platform::URL::URLWithString(url->absoluteString()) != url) std::abort();
  for (const char c : url->absoluteString()) {
    if (c <= ' ' || c > '~') std::abort();
  }
  if (url->path().find('\0') != std::string::npos) std::abort();
  static_cast<void>(url->scheme());
  static_cast<void>(url->host());
  static_cast<void>(url->query());
  static_cast<void>(url->fragment());
  static_cast<void>(url->isFileURL());
  return 0;
}
