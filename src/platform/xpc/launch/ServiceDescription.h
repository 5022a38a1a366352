#pragma once

#include <string>

#include "platform/foundation/base/Result.h"
#include "platform/xpc/launch/LaunchError.h"

// Internal to the channel: what an installed service says of itself.
namespace platform::xpc {

struct ServiceDescription {
  /// The description's own path.
  std::string file;
  /// Absolute path of the executable.
  std::string program;
};

/// Finds and reads "xpc-services/<name>.plist" along XDG_DATA_HOME and XDG_DATA_DIRS; the first one found counts, even when it is faulty.
/// Kinds NotInstalled and BadInstallation. Any thread.
Result<ServiceDescription, LaunchError> findServiceDescription(const std::string& name);

}  // namespace platform::xpc
