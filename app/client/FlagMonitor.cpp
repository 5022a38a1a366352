#include "app/client/FlagMonitor.h"

#include <algorithm>
#include <span>
#include <string_view>
#include <utility>

#include "contract/ServiceName.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/preferences/PreferencesDomain.h"
#include "platform/foundation/preferences/PreferencesFolder.h"
#include "platform/fsevents/FSEventStream.h"

namespace kestrine {

namespace {

// Short enough to be at once for people; long enough for the several steps of one write to arrive together.
constexpr double kLatency = 0.05;

/// Notices about the whole folder, after which the file may have changed without an event of its own.
constexpr auto kFolderNotices = platform::kFSEventStreamEventFlagMustScanSubDirs | platform::kFSEventStreamEventFlagRootChanged |
                                platform::kFSEventStreamEventFlagMount | platform::kFSEventStreamEventFlagUnmount;

/// `end`: what the path of the file with the flag ends in.
bool concernsFlag(const platform::FSEvent& event, std::string_view end) {
  return (event.flags & kFolderNotices) != 0 || std::string_view(event.path).ends_with(end);
}

}  // namespace

FlagMonitor::FlagMonitor(std::shared_ptr<platform::RunLoop> loop, Handler raised, std::function<void()> looked)
    : loop_(std::move(loop)), raised_(std::move(raised)), looked_(std::move(looked)) {
  const auto flags = platform::kFSEventStreamCreateFlagNoDefer | platform::kFSEventStreamCreateFlagWatchRoot |
                     platform::kFSEventStreamCreateFlagFileEvents;
  stream_ = std::make_unique<platform::FSEventStream>(
      [this, end = "/" + platform::preferencesFileName(kServiceName)](platform::FSEventStream&, std::span<const platform::FSEvent> events) {
        if (std::ranges::any_of(events, [&end](const platform::FSEvent& event) { return concernsFlag(event, end); })) look();
      },
      std::vector<std::string>{platform::preferencesFolder()}, platform::kFSEventStreamEventIdSinceNow, kLatency, flags);
  stream_->scheduleWithRunLoop(loop_);
}

FlagMonitor::~FlagMonitor() {
  if (firstLook_) firstLook_->invalidate();
}

bool FlagMonitor::start() {
  if (!stream_->start()) return false;
  // What was written before the watch stood is found by looking; what is written from now on is told.
  firstLook_ = platform::RunLoopSource::create([this] {
    firstLook_->invalidate();
    look();
  });
  loop_->add(firstLook_);
  firstLook_->signal();
  return true;
}

std::string FlagMonitor::error() const { return stream_->status().objectForKey("error").stringValue(); }

void FlagMonitor::look() {
  if (looked_) looked_();
  if (const FlagReading reading = takeFlag(); reading.raised) raised_(reading);
}

}  // namespace kestrine
