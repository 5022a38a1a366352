#pragma once

#include <chrono>

namespace platform {

/// Seconds as a duration that can be added to any point in time: below zero and not-a-number give zero, and 30 years is the most. Rounded
/// up, so that what waits for it is never early. Any thread.
std::chrono::nanoseconds clampedSeconds(double seconds);

}  // namespace platform
