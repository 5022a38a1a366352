#include "service/FileWatcherXpcService.h"

#include <chrono>
#include <utility>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/log/Contained.h"
#include "watcher/FileWatcherServiceXPC.h"
#include "watcher/WatchClient.h"
#include "watcher/Watches.h"

namespace kestrine {

namespace {

/// How long a watch may take to tell what it has seen before it is left to itself with that.
constexpr std::chrono::seconds kEndPatience{2};

}  // namespace

void FileWatcherXpcService::callToFileWatcher() {
  {
    // Held no longer than this: a later call must be able to destroy the controller while this one is in its run loop.
    const auto controller = std::make_shared<FileWatcherServiceXPC>();
    Watches::ofThisProcess().add(controller, client_);
    const auto former = exchangeController(controller);
    controller->initFileWatcher();
    // Only now: what changed meanwhile is seen by one of the two, and by which one does not matter.
    if (former) static_cast<void>(former->end(Watches::Clock::now() + kEndPatience));
    Watches::ofThisProcess().endSpare();
  }
  // The watch outlives what a handler of its loop throws.
  while (!platform::runContained("an exception left the run loop of a watch", [] { platform::RunLoop::current()->run(); })) {
  }
}

std::shared_ptr<FileWatcherServiceXPC> FileWatcherXpcService::fileWatcherController() const {
  const platform::MutexLock lock(mutex_);
  return fileWatcherController_;
}

void FileWatcherXpcService::setFileWatcherController(std::shared_ptr<FileWatcherServiceXPC> controller) {
  const auto former = exchangeController(std::move(controller));
  if (former) static_cast<void>(former->end(Watches::Clock::now() + kEndPatience));
}

std::shared_ptr<FileWatcherServiceXPC> FileWatcherXpcService::exchangeController(std::shared_ptr<FileWatcherServiceXPC> controller) {
  const platform::MutexLock lock(mutex_);
  return std::exchange(fileWatcherController_, std::move(controller));
}

}  // namespace kestrine
