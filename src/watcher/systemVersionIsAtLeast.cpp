#include "watcher/systemVersionIsAtLeast.h"

#include "platform/foundation/process/SystemVersion.h"

namespace kestrine {

bool KnownSystemVersion::isAtLeast(std::int32_t major, std::int32_t minor) {
  if (major_ == 0) major_ = platform::systemVersion().major;
  if (minor_ == 0) minor_ = platform::systemVersion().minor;
  return major_ > major || (major_ == major && minor_ >= minor);
}

bool systemVersionIsAtLeast(std::int32_t major, std::int32_t minor) {
  static KnownSystemVersion known;
  return known.isAtLeast(major, minor);
}

}  // namespace kestrine
