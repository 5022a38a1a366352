#pragma once

#include <string>
#include <vector>

#include "platform/fsevents/TreeOptions.h"

namespace platform::fsevents {

/// Where a path given by a caller is opened, under which text it is reported, and which of the excluded paths concern it. A relative path
/// is taken from the current directory of this moment.
TreeOptions watchedPath(const std::string& given, const std::vector<std::string>& excluded);

}  // namespace platform::fsevents
