#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "platform/foundation/base/Mutex.h"
#include "platform/fsevents/FSEventStream.h"
#include "watcher/CDEvents.h"

namespace kestrine {

/// What a CDEvents shares with a delivery that is under way, and which therefore outlives an owner that its own handler destroys.
/// Threads: `deliver` on the run loop's; any thread may use the rest while the owner lives.
class CDEvents::Impl {
 public:
  /// What may be set while the stream runs.
  struct Settings {
    std::vector<platform::URL> watchedURLs;
    std::optional<std::vector<platform::URL>> excludedURLs;
    std::weak_ptr<CDEventsDelegate> delegate;
    std::shared_ptr<const CDEvent> lastEvent;
  };
  /// What is set at construction and constant since.
  struct Configuration {
    CDEventsEventBlock eventBlock;
    platform::FSEventStreamEventId sinceEventIdentifier = kCDEventsSinceEventNow;
    platform::FSEventStreamCreateFlags eventStreamCreationFlags = kCDEventsDefaultEventStreamFlags;
    double notificationLatency = 0;
  };

  Impl(CDEvents& owner, Configuration configuration, Settings settings, bool ignoreEventsFromSubDirectories);

  /// Filters a batch of the platform's events and hands what is left to the block. Stops when the owner is being destroyed.
  void deliver(std::span<const platform::FSEvent> events);
  /// Makes a delivery that is under way the last one, and end after its current event.
  void abandon() { abandoned_ = true; }

  template <class T>
  [[nodiscard]] T get(T Settings::*setting) const {
    return settings_.with([setting](const Settings& settings) { return settings.*setting; });
  }
  /// The former value is destroyed outside the lock.
  template <class T>
  void set(T Settings::*setting, T value) {
    settings_.with([&](Settings& settings) { std::swap(settings.*setting, value); });
  }

  const Configuration configuration;
  /// Read anew for each event, unlike the lists.
  std::atomic<bool> ignoreEventsFromSubDirectories;
  /// Made and ended by the owner.
  std::unique_ptr<platform::FSEventStream> eventStream;

 private:
  CDEvents& owner_;
  platform::Guarded<Settings> settings_;
  std::atomic<bool> abandoned_ = false;
};

}  // namespace kestrine
