#pragma once

#include <memory>

#include "contract/FileWatcherXpcServiceProtocol.h"
#include "platform/foundation/base/Mutex.h"

namespace kestrine {

class FileWatcherServiceXPC;

/// The object that the service exports on one connection. Owns the controller of the watch that was asked for last.
/// Threads: any. Each call that watches occupies its own thread.
class FileWatcherXpcService : public FileWatcherXpcServiceProtocol {
 public:
  /// Starts a new controller, which replaces and thereby ends the former one, and runs the calling thread's run loop for as long as its
  /// watch lasts. Returns at once when no watch could be started.
  void callToFileWatcher() override;

  [[nodiscard]] std::shared_ptr<FileWatcherServiceXPC> fileWatcherController() const;
  /// Destroys the former controller before it returns, unless somebody else holds it.
  void setFileWatcherController(std::shared_ptr<FileWatcherServiceXPC> controller);

 private:
  mutable platform::Mutex mutex_;
  std::shared_ptr<FileWatcherServiceXPC> fileWatcherController_ GUARDED_BY(mutex_);
};

}  // namespace kestrine
