#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/value/Object.h"
#include "watcher/CDEvents.h"
#include "watcher/CDEventsDelegate.h"
#include "watcher/systemVersionIsAtLeast.h"

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
/// Made once per request to watch; what is watched cannot be changed on a live controller. Destroying it ends the watch.
/// While it lives, the section "watches" of the status registry holds what it is doing: "number" (of the controller, from 1 within the
/// process), "folder", "state" ("starting", "standing" or "failed") and, when failed, "reason".
///
/// Threads: everything is called on one thread, whose run loop then delivers the changes. Only the destructor may run on another.
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
  void report(const platform::Exception& failure);

  std::unique_ptr<CDEvents> events_;
  platform::Object iAppsPrefs_;
  std::unique_ptr<Status> status_;
};

/// The flags with which a watch is created on the version of the operating system that `isAtLeast` answers for.
platform::FSEventStreamCreateFlags watchCreationFlags(
    const std::function<bool(std::int32_t major, std::int32_t minor)>& isAtLeast = systemVersionIsAtLeast);

/// Raises the flag for one change. The handler of every watch.
void raiseFileWatcherStatus(CDEvents& URLWatcher, const std::shared_ptr<const CDEvent>& event);

}  // namespace kestrine
