#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "platform/fsevents/FSEventStream.h"
#include "watcher/CDEvents.h"

namespace kestrine {

/// What a CDEvents shares with a delivery that is under way, and which therefore outlives an owner that its own handler destroys.
class CDEvents::Impl {
 public:
  struct Configuration {
    std::weak_ptr<CDEventsDelegate> delegate;
    std::vector<platform::URL> watchedURLs;
    std::optional<std::vector<platform::URL>> excludedURLs;
    CDEventsEventBlock eventBlock;
    platform::FSEventStreamEventId sinceEventIdentifier = kCDEventsSinceEventNow;
    platform::FSEventStreamCreateFlags eventStreamCreationFlags = kCDEventsDefaultEventStreamFlags;
    double notificationLatency = 0;
    bool ignoreEventsFromSubDirectories = false;
  };

  Impl(CDEvents& owner, Configuration configuration);

  /// Filters a batch of the platform's events and hands what is left to the block. Stops when the owner is being destroyed.
  void deliver(std::span<const platform::FSEvent> events);
  /// Makes a delivery that is under way the last one, and end after its current event.
  void abandon() { abandoned_ = true; }

  template <class T>
  [[nodiscard]] T read(const T& property) const {
    const std::lock_guard lock(mutex_);
    return property;
  }
  /// Returns the former value, so that it is destroyed outside the lock.
  template <class T>
  T exchange(T& property, T value) {
    const std::lock_guard lock(mutex_);
    std::swap(property, value);
    return value;
  }

  // Set at construction and constant since.
  const CDEventsEventBlock eventBlock;
  const platform::FSEventStreamEventId sinceEventIdentifier;
  const platform::FSEventStreamCreateFlags eventStreamCreationFlags;
  const double notificationLatency;

  // Go through `read` and `exchange`.
  std::vector<platform::URL> watchedURLs;
  std::optional<std::vector<platform::URL>> excludedURLs;
  std::weak_ptr<CDEventsDelegate> delegate;
  std::shared_ptr<const CDEvent> lastEvent;

  std::atomic<bool> ignoreEventsFromSubDirectories;
  std::unique_ptr<platform::FSEventStream> eventStream;

 private:
  CDEvents& owner_;
  mutable std::mutex mutex_;
  std::atomic<bool> abandoned_ = false;
};

/// What the platform's stream calls with each batch, here for a test to call with a batch of its own.
void CDEventsCallback(CDEvents& info, std::span<const platform::FSEvent> events);

}  // namespace kestrine
