#pragma once

#include <cstdint>

namespace kestrine {

/// Whether the operating system's version is `major`.`minor` or later. The version is asked for once per process, except that a part which
/// is 0 is asked for again on the next call. Any thread.
bool systemVersionIsAtLeast(std::int32_t major, std::int32_t minor);

/// Forgets the version that was asked for, so that a test can go through several.
void resetSystemVersionCachesForTest();

}  // namespace kestrine
