#pragma once

#include <string>
#include <vector>

#include "platform/fsevents/mounts/MountTable.h"
#include "platform/fsevents/tree/TreeOptions.h"

namespace platform::fsevents {

/// Where a path given by a caller is opened, under which text it is reported, and which of the excluded paths concern it. A relative path
/// is taken from the current directory of this moment. Symbolic links are followed as far as no file system that may hang is looked at.
TreeOptions watchedPath(const std::string& given, const std::vector<std::string>& excluded, const MountTable& mounts = {});

}  // namespace platform::fsevents
