#include "platform/foundation/preferences/PreferencesAside.h"

#include <sys/stat.h>

#include <system_error>

#include "platform/foundation/preferences/PreferencesError.h"
#include "platform/foundation/preferences/PreferencesPlace.h"

namespace platform {

namespace {

constexpr int kCorruptFilesKept = 100;
/// Nobody waits for the lock while more is copied.
constexpr off_t kLargestKept = off_t{256} << 20U;

}  // namespace

std::string keepAside(const PreferencesPlace& place, const FileVersion& damaged, const std::string& temporaryName) {
  const PreferencesFolder& folder = place.folder();
  struct stat status {};
  if (fstat(damaged.descriptor(), &status) != 0) throwLastError("looking at the damaged file");
  if (status.st_size > kLargestKept)
    throw PreferencesFailure(PreferencesError::Kind::TooLarge, "the damaged file is too large to be kept aside");
  static_cast<void>(folder.copy(temporaryName, damaged.descriptor(), PreferencesAttributes(damaged.descriptor())));
  try {
    const std::string base = place.name() + ".corrupt";
    std::string aside = base;
    for (int number = 2; !folder.renameToFree(temporaryName, aside); ++number) {
      if (number > kCorruptFilesKept) {
        folder.remove(aside);
      } else {
        aside = base + "." + std::to_string(number);
      }
    }
    folder.flush();
    return aside;
  } catch (...) {
    folder.removeLeftover(temporaryName);
    throw;
  }
}

}  // namespace platform
