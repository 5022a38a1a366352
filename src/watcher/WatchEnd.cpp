// How a watch ends: on its own thread, after what it has seen was told.
#include <utility>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/log/Contained.h"
#include "watcher/FileWatcherServiceXPC.h"
#include "watcher/WatchStatus.h"

namespace kestrine {

namespace {

using Clock = std::chrono::steady_clock;

/// Has a handler that fails neither keep the watch nor hold up who waits for its end.
void tellAndLetGo(std::shared_ptr<CDEvents>& events) {
  platform::runContained("an exception left a watch that was ended", [&events] { events->flushSynchronously(); });
  events.reset();
}

}  // namespace

/// Done once; also when the thread of the watch has gone without it.
class FileWatcherServiceXPC::Ending {
 public:
  void done() EXCLUDES(mutex_) {
    const platform::MutexLock lock(mutex_);
    isDone_ = true;
    told_.notifyAll();
  }
  bool waitUntil(Clock::time_point limit) EXCLUDES(mutex_) {
    platform::MutexLock lock(mutex_);
    while (!isDone_) {
      if (!told_.waitUntil(lock, limit)) return isDone_;
    }
    return true;
  }

 private:
  platform::Mutex mutex_;
  platform::Condition told_;
  bool isDone_ GUARDED_BY(mutex_) = false;
};

void FileWatcherServiceXPC::watch(std::shared_ptr<CDEvents> events) {
  const bool isEnded = watching_.with([&](Watching& watching) {
    if (watching.ending) return true;
    watching.events = events;
    watching.loop = platform::RunLoop::current();
    return false;
  });
  if (isEnded) tellAndLetGo(events);
}

std::shared_ptr<FileWatcherServiceXPC::Ending> FileWatcherServiceXPC::ending() {
  std::shared_ptr<CDEvents> events;
  std::shared_ptr<platform::RunLoop> loop;
  bool isFirst = false;
  const auto ending = watching_.with([&](Watching& watching) {
    isFirst = watching.ending == nullptr;
    if (isFirst) watching.ending = std::make_shared<Ending>();
    events = std::move(watching.events);
    loop = std::move(watching.loop);
    return watching.ending;
  });
  if (!isFirst) return ending;
  status_->ends();
  const std::shared_ptr<void> told(nullptr, [ending](void*) { ending->done(); });
  if (!events) return ending;
  if (loop->isCurrent()) {
    tellAndLetGo(events);
  } else {
    loop->perform([events = std::move(events), told]() mutable { tellAndLetGo(events); });
  }
  return ending;
}

bool FileWatcherServiceXPC::end(Clock::time_point limit) { return ending()->waitUntil(limit); }

}  // namespace kestrine
