#include "platform/foundation/preferences/PreferencesReasons.h"

#include "platform/foundation/log/Log.h"

namespace platform {

PreferencesReasons& PreferencesReasons::shared() {
  static PreferencesReasons& reasons = *new PreferencesReasons;
  return reasons;
}

void PreferencesReasons::failed(const std::string& path, Operation operation, const std::string& reason) {
  {
    const MutexLock lock(mutex_);
    if (!said_[{path, operation}].insert(reason).second) return;
  }
  NSLog("The preferences " + path + (operation == Operation::Read ? " cannot be read: " : " cannot be written: ") + reason);
}

void PreferencesReasons::succeeded(const std::string& path, Operation operation) {
  const MutexLock lock(mutex_);
  if (!said_.empty()) said_.erase({path, operation});
}

}  // namespace platform
