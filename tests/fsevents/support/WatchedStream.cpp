#include "tests/fsevents/support/WatchedStream.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace kestrine::test {

using platform::FSEvent;
using platform::FSEventStream;
using platform::FSEventStreamEventFlags;

WatchedStream::WatchedStream(Source source, StreamOptions options) : onDelivery_(std::move(options.onDelivery)) {
  std::promise<std::shared_ptr<platform::RunLoop>> made;
  std::promise<void> scheduled;
  thread_ = std::thread([this, &made, go = scheduled.get_future()]() mutable {
    auto loop = platform::RunLoop::current();
    made.set_value(loop);
    go.wait();
    loop->run();
    const std::lock_guard lock(mutex_);
    loopEnded_ = true;
    changed_.notify_all();
  });
  loop_ = made.get_future().get();
  stream_ = std::make_unique<FSEventStream>([this](FSEventStream& stream, std::span<const FSEvent> events) { receive(stream, events); },
                                            std::move(options.paths), options.since, options.latency, options.flags, source);
  if (!options.exclusions.empty()) {
    EXPECT_TRUE(stream_->setExclusionPaths(std::move(options.exclusions)));
  }
  stream_->scheduleWithRunLoop(loop_);
  // A flush waits for a loop that runs, not for one that is about to.
  std::promise<void> running;
  loop_->perform([&running] { running.set_value(); });
  scheduled.set_value();
  running.get_future().wait();
  started_ = stream_->start();
}

WatchedStream::~WatchedStream() {
  stream_.reset();
  if (!loopEnds(std::chrono::seconds(60))) {
    ADD_FAILURE() << "the run loop did not end with its stream";
    loop_->perform([loop = loop_.get()] { loop->stop(); });
  }
  thread_.join();
}

bool WatchedStream::loopEnds(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [this] { return loopEnded_; });
}

void WatchedStream::receive(FSEventStream& stream, std::span<const FSEvent> events) {
  if (onDelivery_) onDelivery_(stream);
  const std::lock_guard lock(mutex_);
  events_.insert(events_.end(), events.begin(), events.end());
  ++deliveries_;
  changed_.notify_all();
}

bool WatchedStream::waitUntil(const std::function<bool(const std::vector<FSEvent>&)>& condition, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return condition(events_); });
}

bool WatchedStream::waitFor(const std::string& path, FSEventStreamEventFlags flags, std::chrono::milliseconds limit) {
  return waitUntil(
      [&](const std::vector<FSEvent>& events) {
        FSEventStreamEventFlags seen = 0;
        bool any = false;
        for (const auto& event : events) {
          if (event.path != path) continue;
          any = true;
          seen |= event.flags;
        }
        return any && (seen & flags) == flags;
      },
      limit);
}

std::vector<FSEvent> WatchedStream::events() const {
  const std::lock_guard lock(mutex_);
  return events_;
}

std::vector<FSEvent> WatchedStream::eventsOf(const std::string& path) const {
  auto all = events();
  std::erase_if(all, [&](const FSEvent& event) { return event.path != path; });
  return all;
}

FSEventStreamEventFlags WatchedStream::flagsOf(const std::string& path) const {
  FSEventStreamEventFlags flags = 0;
  for (const auto& event : eventsOf(path)) flags |= event.flags;
  return flags;
}

FSEventStreamEventFlags WatchedStream::allFlags() const {
  FSEventStreamEventFlags flags = 0;
  for (const auto& event : events()) flags |= event.flags;
  return flags;
}

bool WatchedStream::covers(const std::string& path) const {
  const auto all = events();
  return std::any_of(all.begin(), all.end(), [&](const FSEvent& event) { return coversPath(event, path); });
}

bool WatchedStream::tellsAtOrBelow(const std::string& path) const {
  const auto all = events();
  return std::any_of(all.begin(), all.end(), [&](const FSEvent& event) { return isAtOrBelow(event.path, path); });
}

bool WatchedStream::tellsBelow(const std::string& path) const {
  const auto all = events();
  return std::any_of(all.begin(), all.end(), [&](const FSEvent& event) { return event.path != path && isAtOrBelow(event.path, path); });
}

std::size_t WatchedStream::deliveries() const {
  const std::lock_guard lock(mutex_);
  return deliveries_;
}

void WatchedStream::clear() {
  const std::lock_guard lock(mutex_);
  events_.clear();
  deliveries_ = 0;
}

std::string WatchedStream::describe() const {
  constexpr std::size_t kShown = 60;
  const auto all = events();
  std::string text = "events told (" + std::to_string(all.size()) + "):\n";
  for (std::size_t i = 0; i < all.size() && i < kShown; ++i) text += "  " + describeEvent(all[i]) + "\n";
  return text;
}

bool isAtOrBelow(const std::string& path, const std::string& folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

bool coversPath(const FSEvent& event, const std::string& path) {
  if (event.path == path) return true;
  return (event.flags & platform::kFSEventStreamEventFlagMustScanSubDirs) != 0 && isAtOrBelow(path, event.path);
}

std::string describeEvent(const FSEvent& event) {
  std::string text = std::to_string(event.id) + " " + (event.path.size() > 300 ? event.path.substr(0, 300) + "..." : event.path) + " [";
  for (const auto& name : platform::FSEventStreamEventFlagNames(event.flags)) text += name + " ";
  return text + "]";
}

}  // namespace kestrine::test
