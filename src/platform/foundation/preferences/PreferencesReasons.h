#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>

#include "platform/foundation/base/Mutex.h"

namespace platform {

/// Says each reason why a preferences file cannot be read or written once in the log, and again after it worked in between. Threads: any.
class PreferencesReasons {
 public:
  enum class Operation { Read, Write };

  static PreferencesReasons& shared();

  /// An empty reason says that it worked.
  void note(const std::string& path, Operation operation, const std::string& reason) EXCLUDES(mutex_);

 private:
  Mutex mutex_;
  std::map<std::pair<std::string, Operation>, std::set<std::string>> said_ GUARDED_BY(mutex_);
};

}  // namespace platform
