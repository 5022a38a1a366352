#pragma once

#include <string>

#include "platform/foundation/value/Object.h"

namespace kestrine {

/// "2026-11-21 08:38:00.123", in local time, for people.
std::string localTimeText(platform::Date date);
/// "2026-11-21T08:38:00.123Z" (RFC 3339), for programs.
std::string universalTimeText(platform::Date date);
/// "3 s", "12 min", "5 h", "2 days": the coarse length of a time.
std::string durationText(double seconds);

}  // namespace kestrine
