#include "watcher/systemVersionIsAtLeast.h"

#include <atomic>

#include "platform/foundation/process/SystemVersion.h"

namespace kestrine {

namespace {

// Two threads may fetch at once; both then store the same number.
std::atomic<std::int32_t> versionMajor = 0;
std::atomic<std::int32_t> versionMinor = 0;

}  // namespace

bool systemVersionIsAtLeast(std::int32_t major, std::int32_t minor) {
  if (versionMajor == 0) versionMajor = platform::systemVersion().major;
  if (versionMinor == 0) versionMinor = platform::systemVersion().minor;
  return versionMajor > major || (versionMajor == major && versionMinor >= minor);
}

void resetSystemVersionCachesForTest() {
  versionMajor = 0;
  versionMinor = 0;
}

}  // namespace kestrine
