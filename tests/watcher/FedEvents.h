#pragma once

#include <fmt/format.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/watcher/WatcherFixture.h"
#include "watcher/CDEvent.h"
#include "watcher/CDEvents.h"

namespace kestrine::test {

class FedEventsTest : public WatcherTest {};

/// A stream over paths that need not exist, to which a test feeds batches of its own as the platform would.
class FedEvents {
 public:
  struct Options {
    bool watchedFoldersOnly = false;
    std::optional<std::vector<std::string>> excluded = std::nullopt;
  };

  FedEvents(const std::vector<std::string>& watched, const Options& options) {
    std::optional<std::vector<platform::URL>> excluded;
    if (options.excluded) excluded = listOf(*options.excluded);
    auto block = [this](CDEvents& stream, const std::shared_ptr<const CDEvent>& event) {
      received.push_back(event);
      if (onEvent) onEvent(stream);
    };
    // A latency beyond the test's end, so that nothing but what is fed arrives.
    events_ = std::make_unique<CDEvents>(listOf(watched), block, platform::RunLoop::current(), kCDEventsSinceEventNow, 3600.0,
                                         options.watchedFoldersOnly, excluded, kCDEventsDefaultEventStreamFlags);
  }
  FedEvents(const FedEvents&) = delete;
  FedEvents& operator=(const FedEvents&) = delete;

  CDEvents& operator*() const { return *events_; }
  CDEvents* operator->() const { return events_.get(); }
  void destroy() { events_.reset(); }

  /// Delivers one batch with an event for each path.
  void feed(const std::vector<std::string>& paths) {
    std::vector<platform::FSEvent> batch;
    batch.reserve(paths.size());
    for (const std::string& path : paths) batch.push_back({path, platform::kFSEventStreamEventFlagItemModified, ++identifier_});
    CDEventsCallback(*events_, batch);
  }

  /// The paths of the events that reached the handler, in order.
  [[nodiscard]] std::vector<std::string> paths() const {
    std::vector<std::string> paths;
    for (const auto& event : received) paths.push_back(event->URL()->path());
    return paths;
  }

  std::vector<std::shared_ptr<const CDEvent>> received;
  std::function<void(CDEvents&)> onEvent;

 private:
  static std::vector<platform::URL> listOf(const std::vector<std::string>& texts) {
    std::vector<platform::URL> URLs;
    URLs.reserve(texts.size());
    for (const std::string& text : texts) URLs.push_back(platform::URL::URLWithString(text).value());
    return URLs;
  }

  platform::FSEventStreamEventId identifier_ = 0;
  std::unique_ptr<CDEvents> events_;
};

}  // namespace kestrine::test
