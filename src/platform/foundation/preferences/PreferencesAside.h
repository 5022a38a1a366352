#pragma once

#include <string>

#include "platform/foundation/preferences/PreferencesVersion.h"

namespace platform {

class PreferencesPlace;

/// Keeps a copy of the damaged file that is open, flushed, under a name of its own beside it: "<name>.corrupt", or ".corrupt.2" and so on.
/// Returns that name. `temporaryName` is the writer's. Throws std::system_error and PreferencesFailure.
std::string keepAside(const PreferencesPlace& place, const FileVersion& damaged, const std::string& temporaryName);

}  // namespace platform
