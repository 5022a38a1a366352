#include "service/FileWatcherXpcService.h"

#include <utility>

#include "platform/concurrency/loop/RunLoop.h"
#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine {

void FileWatcherXpcService::callToFileWatcher() {
  {
    // Held no longer than this: a later call must be able to destroy the controller while this one is in its run loop.
    const auto controller = std::make_shared<FileWatcherServiceXPC>();
    setFileWatcherController(controller);
    controller->initFileWatcher();
  }
  platform::RunLoop::current()->run();
}

std::shared_ptr<FileWatcherServiceXPC> FileWatcherXpcService::fileWatcherController() const {
  const platform::MutexLock lock(mutex_);
  return fileWatcherController_;
}

void FileWatcherXpcService::setFileWatcherController(std::shared_ptr<FileWatcherServiceXPC> controller) {
  {
    const platform::MutexLock lock(mutex_);
    std::swap(fileWatcherController_, controller);
  }
  // Outside the lock, since ending a watch waits for its running handler.
  controller.reset();
}

}  // namespace kestrine
