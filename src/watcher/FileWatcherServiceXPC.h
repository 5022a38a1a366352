#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/value/Object.h"
#include "watcher/CDEvents.h"
#include "watcher/CDEventsDelegate.h"
#include "watcher/systemVersionIsAtLeast.h"

namespace platform {
class RunLoop;
}

namespace kestrine {

/// The controller of one watch: reads the preferences that it shares with the application, watches the sync folder below the base path
/// found there, and raises one flag in the service's own preferences for each change. What changed is the application's to find out.
///
/// | preference          | domain                            |                                                          |
/// |---------------------|-----------------------------------|----------------------------------------------------------|
/// | kestrinePathKey     | Ostrabyte.Kestrine                | the base path; its folder "Kestrine" is watched          |
/// | computerIdKey       | Ostrabyte.Kestrine                | for the report of a watch that could not be started      |
/// | userIdKey           | Ostrabyte.Kestrine                | the same                                                 |
/// | FileWatcherStatusKey| the process's own                 | set to "1" for each change; never reset here             |
///
/// Made once per request to watch; what is watched cannot be changed on a live controller. `end` or destroying it ends the watch: what it
/// has seen until then is told first.
/// While it lives, the section "watches" of the status registry holds what it is doing: "number" (of the controller, from 1 within the
/// process), "folder", "state" ("starting", "standing" or "failed") and, when failed, "reason".
///
/// Threads: everything is called on one thread, whose run loop then delivers the changes. Only the end and the destructor may run on
/// another.
class FileWatcherServiceXPC : public CDEventsDelegate {
 public:
  FileWatcherServiceXPC();
  ~FileWatcherServiceXPC() override;
  FileWatcherServiceXPC(const FileWatcherServiceXPC&) = delete;
  FileWatcherServiceXPC& operator=(const FileWatcherServiceXPC&) = delete;

  /// Reads the preferences and begins to watch. No platform::Exception leaves it: a watch that cannot be started is reported by
  /// `logErrorMethod`.
  void initFileWatcher();
  /// Begins to watch on the calling thread's run loop by the preferences in `iAppsPrefs`; does nothing when a stream exists. Throws
  /// platform::Exception when the base path makes no URL or the stream does not start.
  void run();
  /// Tells what the watch has seen until now, the rest of its latency not waited for, and ends it, on its own thread; its run loop has
  /// nothing of it then. Waits for that until `limit`; a watch that takes longer goes on with it by itself, and this returns false. The
  /// status says nothing of the watch from the beginning of its end. A watch that has not begun never does. Any thread, any number of
  /// times.
  bool end(std::chrono::steady_clock::time_point limit);
  /// The same without waiting.
  void beginEnd() { static_cast<void>(ending()); }
  /// Higher than that of every controller before it. Any thread.
  [[nodiscard]] std::uint64_t number() const;
  /// The folder that is watched; nothing unless the watch stands. Any thread.
  [[nodiscard]] std::optional<std::string> standingFolder() const;
  /// Tells the product's server that the watch could not be started, once and with fixed texts; what the exception says stays here. Returns
  /// when the request is on its way; its outcome is only logged. On 10.7 it throws platform::Exception when the preferences lack an
  /// identifier (see QueryParser); `initFileWatcher` logs that.
  void logErrorMethod(const platform::Exception& exception);

  /// Logs the event. Only there so that a controller can be a stream's delegate; its own stream calls a block.
  void URLWatcher_eventOccurred(CDEvents& URLWatcher, const std::shared_ptr<const CDEvent>& event) override;

  /// The shared preferences as `initFileWatcher` found them; nil when there were none.
  [[nodiscard]] const platform::Object& iAppsPrefs() const { return iAppsPrefs_; }
  void setIAppsPrefs(platform::Object preferences) { iAppsPrefs_ = std::move(preferences); }

 private:
  class Status;
  class Ending;
  /// The stream and the loop that it is on.
  struct Watching {
    std::shared_ptr<CDEvents> events;
    std::shared_ptr<platform::RunLoop> loop;
    /// Set when the end has begun.
    std::shared_ptr<Ending> ending;
  };
  void report(const platform::Exception& failure);
  /// Takes up the stream, unless the watch was ended meanwhile.
  void watch(std::shared_ptr<CDEvents> events);
  std::shared_ptr<Ending> ending();

  platform::Guarded<Watching> watching_;
  platform::Object iAppsPrefs_;
  std::unique_ptr<Status> status_;
};

/// The flags with which a watch is created on the version of the operating system that `isAtLeast` answers for.
platform::FSEventStreamCreateFlags watchCreationFlags(
    const std::function<bool(std::int32_t major, std::int32_t minor)>& isAtLeast = systemVersionIsAtLeast);

/// Raises the flag for one change. The handler of every watch.
void raiseFileWatcherStatus(CDEvents& URLWatcher, const std::shared_ptr<const CDEvent>& event);

}  // namespace kestrine
