#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/fsevents/FSEventStream.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {

using Source = platform::FSEventStream::Source;

/// What a stream is made with.
struct StreamOptions {
  std::vector<std::string> paths;
  platform::FSEventStreamCreateFlags flags = platform::kFSEventStreamCreateFlagFileEvents;
  double latency = 0.03;
  platform::FSEventStreamEventId since = platform::kFSEventStreamEventIdSinceNow;
  std::vector<std::string> exclusions = {};
  /// Called on the run loop's thread before the events of a delivery are kept.
  std::function<void(platform::FSEventStream&)> onDelivery = {};
};

/// A stream on a run loop thread of its own, with everything that it delivered. Started when constructed.
/// Threads: any thread may call anything but the destructor.
class WatchedStream {
 public:
  WatchedStream(Source source, StreamOptions options);
  ~WatchedStream();
  WatchedStream(const WatchedStream&) = delete;
  WatchedStream& operator=(const WatchedStream&) = delete;

  [[nodiscard]] bool started() const { return started_; }
  platform::FSEventStream& stream() { return *stream_; }
  platform::RunLoop& loop() { return *loop_; }
  /// Destroys the stream on the calling thread.
  void destroyStream() { stream_.reset(); }
  /// Whether the run loop's `run` returned within the limit.
  bool loopEnds(std::chrono::milliseconds limit = kPatience);

  /// Delivers what happened so far.
  void flush() { stream_->flushSync(); }
  /// Waits until all of `flags` were told of `path`, in one event or in several.
  bool waitFor(const std::string& path, platform::FSEventStreamEventFlags flags, std::chrono::milliseconds limit = kPatience);
  /// The same for any condition on the events so far.
  bool waitUntil(const std::function<bool(const std::vector<platform::FSEvent>&)>& condition, std::chrono::milliseconds limit = kPatience);

  /// Everything since the beginning or the last `clear`, in the order of delivery.
  [[nodiscard]] std::vector<platform::FSEvent> events() const;
  [[nodiscard]] std::vector<platform::FSEvent> eventsOf(const std::string& path) const;
  /// The flags of all events of `path` together; 0 when there is none.
  [[nodiscard]] platform::FSEventStreamEventFlags flagsOf(const std::string& path) const;
  [[nodiscard]] bool tells(const std::string& path) const { return !eventsOf(path).empty(); }
  /// Whether `path` is told, or a rescan of a folder at or above it.
  [[nodiscard]] bool covers(const std::string& path) const;
  /// Whether any event is at or below `path`.
  [[nodiscard]] bool tellsAtOrBelow(const std::string& path) const;
  [[nodiscard]] bool tellsBelow(const std::string& path) const;
  [[nodiscard]] platform::FSEventStreamEventFlags allFlags() const;
  [[nodiscard]] std::size_t deliveries() const;
  void clear();
  /// The events as text, for failure messages.
  [[nodiscard]] std::string describe() const;

 private:
  void receive(platform::FSEventStream& stream, std::span<const platform::FSEvent> events);

  std::function<void(platform::FSEventStream&)> onDelivery_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<platform::FSEvent> events_;
  std::size_t deliveries_ = 0;
  bool loopEnded_ = false;
  bool started_ = false;
  std::shared_ptr<platform::RunLoop> loop_;
  std::unique_ptr<platform::FSEventStream> stream_;
  std::thread thread_;
};

/// Whether an event speaks of `path`, or asks for a rescan at or above it.
bool coversPath(const platform::FSEvent& event, const std::string& path);
/// Whether `path` is `folder` or below it.
bool isAtOrBelow(const std::string& path, const std::string& folder);
std::string describeEvent(const platform::FSEvent& event);

}  // namespace kestrine::test
