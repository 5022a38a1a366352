#pragma once

#include <optional>
#include <string>

// Internal to the network room.
namespace platform::network {

/// Where a request goes. Two addresses of one origin (RFC 6454) differ in no member.
struct Origin {
  /// "http" or "https".
  std::string scheme;
  std::string host;
  int port = 0;
  friend auto operator<=>(const Origin&, const Origin&) = default;  // NOLINT(modernize-use-nullptr): takes the operator for a zero
};

/// Nothing when the text is no complete address of either scheme, with a host and a valid port.
std::optional<Origin> originOf(const std::string& url);

/// The "Location" of a redirect as an absolute address, seen from the one that answered; empty when it makes none. It may be of any scheme.
std::string resolvedLocation(const std::string& from, const std::string& location);

}  // namespace platform::network
