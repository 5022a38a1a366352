#pragma once

#include <set>
#include <string>

#include "platform/foundation/base/Mutex.h"

namespace platform {

/// The folders in which this process made others, until they have been flushed: a failure is tried again by the next writer. Threads: any.
class UnflushedFolders {
 public:
  static UnflushedFolders& shared();

  void add(const std::string& path) EXCLUDES(mutex_);
  /// Flushes those above `path`. Throws PreferencesFailure (NotFlushed) when one cannot be.
  void flushAbove(const std::string& path) EXCLUDES(mutex_);

 private:
  Mutex mutex_;
  std::set<std::string> paths_ GUARDED_BY(mutex_);
};

}  // namespace platform
