#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/url/URL.h"
#include "platform/fsevents/event/FSEventStreamTypes.h"

namespace platform {
class RunLoop;
}

namespace kestrine {

class CDEvent;
class CDEvents;
class CDEventsDelegate;

/// The stream-creation flags used where none are given.
inline constexpr platform::FSEventStreamCreateFlags kCDEventsDefaultEventStreamFlags =
    platform::kFSEventStreamCreateFlagUseCFTypes | platform::kFSEventStreamCreateFlagWatchRoot;
/// The since-identifier that asks for events from now on.
inline constexpr platform::FSEventStreamEventId kCDEventsSinceEventNow = platform::kFSEventStreamEventIdSinceNow;
/// The name of the exception that an initializer throws when the stream cannot be started.
inline constexpr const char* CDEventsEventStreamCreationFailureException = "CDEventsEventStreamCreationFailureException";

/// What an initializer throws when the stream cannot be started: the name and reason are always the same, and the platform's own reason is
/// kept beside them.
class CDEventsCreationFailure : public platform::Exception {
 public:
  explicit CDEventsCreationFailure(std::string why)
      : Exception(CDEventsEventStreamCreationFailureException, "Failed to create event stream."), why_(std::move(why)) {}

  /// What the platform's stream says of it; may be empty.
  [[nodiscard]] const std::string& why() const noexcept { return why_; }

 private:
  std::string why_;
};

/// Called for each delivered event with the stream that delivers it.
using CDEventsEventBlock = std::function<void(CDEvents& URLWatcher, const std::shared_ptr<const CDEvent>& event)>;

/// What happens in a list of folders, event by event, less what lies in excluded folders.
///
/// A CDEvents runs from construction to destruction; there is no pause. Events arrive in batches, at the latest `notificationLatency`
/// seconds after the first change of the batch, and are handed one after another to a block or to a delegate, on the thread of the run loop
/// given at construction and only while that loop runs.
///
/// Each initializer throws platform::Exception: NSInvalidArgumentException for an empty block or delegate or an empty list, before anything
/// else happens; CDEventsEventStreamCreationFailureException when the stream does not start.
///
/// Threads: the properties may be read and set on any thread. Destruction on another thread than the run loop's waits for a running handler
/// and drops the rest of its batch; the handler itself may destroy the object, and must not use it afterwards.
class CDEvents {
 public:
  // The delegate is looked up anew for each event, and is never kept alive from here.
  CDEvents(std::vector<platform::URL> URLs, std::weak_ptr<CDEventsDelegate> delegate);
  CDEvents(std::vector<platform::URL> URLs, std::weak_ptr<CDEventsDelegate> delegate, const std::shared_ptr<platform::RunLoop>& onRunLoop);
  CDEvents(std::vector<platform::URL> URLs, std::weak_ptr<CDEventsDelegate> delegate, const std::shared_ptr<platform::RunLoop>& onRunLoop,
           platform::FSEventStreamEventId sinceEventIdentifier, double notificationLantency, bool ignoreEventsFromSubDirs,
           std::optional<std::vector<platform::URL>> excludeURLs, platform::FSEventStreamCreateFlags streamCreationFlags);

  CDEvents(std::vector<platform::URL> URLs, CDEventsEventBlock block);
  CDEvents(std::vector<platform::URL> URLs, CDEventsEventBlock block, const std::shared_ptr<platform::RunLoop>& onRunLoop);
  /// The designated initializer. The latency is in seconds; the flags are handed to the platform as they are.
  CDEvents(std::vector<platform::URL> URLs, CDEventsEventBlock block, const std::shared_ptr<platform::RunLoop>& onRunLoop,
           platform::FSEventStreamEventId sinceEventIdentifier, double notificationLantency, bool ignoreEventsFromSubDirs,
           std::optional<std::vector<platform::URL>> excludeURLs, platform::FSEventStreamCreateFlags streamCreationFlags);
  ~CDEvents();
  CDEvents(const CDEvents&) = delete;
  CDEvents& operator=(const CDEvents&) = delete;

  /// A second, already running stream of the same configuration on the calling thread's run loop. The delegate is not carried over.
  [[nodiscard]] std::unique_ptr<CDEvents> copyWithZone() const;

  [[nodiscard]] std::shared_ptr<CDEventsDelegate> delegate() const;
  void setDelegate(const std::weak_ptr<CDEventsDelegate>& delegate);
  [[nodiscard]] CDEventsEventBlock eventBlock() const;
  [[nodiscard]] double notificationLatency() const;
  [[nodiscard]] platform::FSEventStreamEventId sinceEventIdentifier() const;

  /// The last event of the latest batch of which any event was delivered; empty before that.
  [[nodiscard]] std::shared_ptr<const CDEvent> lastEvent() const;
  void setLastEvent(std::shared_ptr<const CDEvent> event);

  // The lists and the mode filter from the next batch on (the mode from the next event on). Setting them does not change which paths the
  // platform's stream reports.
  [[nodiscard]] std::vector<platform::URL> watchedURLs() const;
  void setWatchedURLs(std::vector<platform::URL> URLs);
  [[nodiscard]] std::optional<std::vector<platform::URL>> excludedURLs() const;
  void setExcludedURLs(std::optional<std::vector<platform::URL>> URLs);
  [[nodiscard]] bool ignoreEventsFromSubDirectories() const;
  void setIgnoreEventsFromSubDirectories(bool ignore);

  /// Delivers the pending events before it returns.
  void flushSynchronously();
  /// Asks for the pending events without waiting for them.
  void flushAsynchronously();
  /// The identifier that a change made now would get at the earliest.
  static platform::FSEventStreamEventId currentEventIdentifier();

  /// "<CDEvents: 0x… { watchedURLs = (…) }>".
  [[nodiscard]] std::string description() const;
  /// The platform's own description of its stream.
  [[nodiscard]] std::string streamDescription() const;

 private:
  class Impl;
  friend void CDEventsCallback(CDEvents& info, std::span<const platform::FSEvent> events);

  void createEventStream();
  void startOnRunLoop(const std::shared_ptr<platform::RunLoop>& runLoop);
  void disposeEventStream();

  std::shared_ptr<Impl> impl_;
};

/// What the platform's stream calls with each batch; `info` is the CDEvents that made the stream. On the run loop's thread.
void CDEventsCallback(CDEvents& info, std::span<const platform::FSEvent> events);

}  // namespace kestrine
