#pragma once

#include <chrono>

namespace platform {

/// Seconds as a duration that can be added to any point in time: below zero and not-a-number give zero, and 30 years is the most.
std::chrono::nanoseconds loopDuration(double seconds);

}  // namespace platform
