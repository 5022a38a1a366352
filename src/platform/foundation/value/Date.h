#pragma once

#include <compare>
#include <string>

namespace platform {

/// A point in time: seconds since 1970-01-01 00:00:00 UTC, fractions included. A value.
struct Date {
  double timeIntervalSince1970 = 0;
  /// The current time by CLOCK_REALTIME.
  static Date now();
  /// "2026-11-21 08:38:00 +0000", always in UTC, whole seconds.
  [[nodiscard]] std::string description() const;
  // NOLINTNEXTLINE(modernize-use-nullptr): takes the 0 of a rewritten comparison for a pointer
  friend auto operator<=>(const Date&, const Date&) = default;
};

}  // namespace platform
