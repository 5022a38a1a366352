#pragma once

#include "platform/foundation/preferences/PreferencesLimits.h"

namespace kestrine::test {

/// Other limits of the store for as long as this stands. Threads: one at a time.
class LimitsInForce {
 public:
  explicit LimitsInForce(const platform::PreferencesLimits& limits) { platform::setPreferencesLimits(limits); }
  ~LimitsInForce() { platform::setPreferencesLimits({}); }
  LimitsInForce(const LimitsInForce&) = delete;
  LimitsInForce& operator=(const LimitsInForce&) = delete;
};

/// A damaged file counts as one that nobody is writing at once.
inline constexpr platform::PreferencesLimits kSettledAtOnce{.settled = std::chrono::milliseconds(0),
                                                            .readAgain = std::chrono::milliseconds(0)};

}  // namespace kestrine::test
