#include "platform/foundation/preferences/PreferencesReasons.h"

#include <memory>

#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/Forks.h"

namespace platform {

PreferencesReasons& PreferencesReasons::shared() {
  static constinit PerProcess<PreferencesReasons> reasons;
  return reasons.get([] { return std::make_unique<PreferencesReasons>(); });
}

void PreferencesReasons::note(const std::string& path, Operation operation, const std::string& reason) {
  {
    const MutexLock lock(mutex_);
    if (reason.empty()) {
      if (!said_.empty()) said_.erase({path, operation});
      return;
    }
    if (!said_[{path, operation}].insert(reason).second) return;
  }
  NSLog("The preferences " + path + (operation == Operation::Read ? " cannot be read: " : " cannot be written: ") + reason);
}

}  // namespace platform
