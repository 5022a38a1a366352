#include "platform/foundation/preferences/UnflushedFolders.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/files/Paths.h"
#include "platform/foundation/preferences/Forks.h"
#include "platform/foundation/preferences/PreferencesError.h"
#include "platform/foundation/preferences/PreferencesFolder.h"

namespace platform {

UnflushedFolders& UnflushedFolders::shared() {
  static constinit PerProcess<UnflushedFolders> folders;
  return folders.get([] { return std::make_unique<UnflushedFolders>(); });
}

void UnflushedFolders::add(const std::string& path) {
  const MutexLock lock(mutex_);
  paths_.insert(path);
}

void UnflushedFolders::flushAbove(const std::string& path) {
  std::vector<std::string> above;
  {
    const MutexLock lock(mutex_);
    for (const auto& each : paths_) {
      if (isBelowPath(path, each)) above.push_back(each);
    }
  }
  for (const auto& each : above) {
    const FileHandle folder(open(each.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.isOpen()) {
      flushOrThrow(folder.fileDescriptor(), "flushing the folder above");
    } else if (errno != ENOENT) {
      // Who may not read it can still flush the whole file system from below.
      const FileHandle below(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (!below.isOpen() || syncfs(below.fileDescriptor()) != 0)
        throw PreferencesFailure(PreferencesError::Kind::NotFlushed, "flushing the folder above: " + errnoText(errno));
    }
    const MutexLock lock(mutex_);
    paths_.erase(each);
  }
}

}  // namespace platform
