#include "watcher/FileWatcherServiceXPC.h"

#include <fmt/format.h>

#include <memory>
#include <utility>

#include "contract/SharedPreferences.h"
#include "contract/SyncFolder.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/files/HomeDirectory.h"
#include "platform/foundation/files/Paths.h"
#include "platform/foundation/log/Contained.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/url/PercentEscapes.h"
#include "platform/foundation/value/Dictionary.h"
#include "watcher/CDEvent.h"
#include "watcher/FlagRaiser.h"
#include "watcher/WatchStatus.h"

namespace kestrine {

namespace {

constexpr double kNotificationLatency = 3.0;

// A list of the one URL that `text` makes, as it stands.
std::vector<platform::URL> listOfURL(const std::string& text) {
  std::optional<platform::URL> url = platform::URL::URLWithString(text);
  if (!url) throw platform::Exception(platform::NSInvalidArgumentException, fmt::format("\"{}\" makes no URL to put into a list.", text));
  return {*std::move(url)};
}

/// How long who lets go of a watch waits for it to tell what it has seen; after that it does so by itself.
constexpr std::chrono::seconds kEndPatience{2};

}  // namespace

platform::FSEventStreamCreateFlags watchCreationFlags(const std::function<bool(std::int32_t major, std::int32_t minor)>& isAtLeast) {
  platform::FSEventStreamCreateFlags flags = kCDEventsDefaultEventStreamFlags;
  if (isAtLeast(10, 6)) flags |= platform::kFSEventStreamCreateFlagIgnoreSelf;
  if (isAtLeast(10, 7)) flags |= platform::kFSEventStreamCreateFlagFileEvents;
  return flags;
}

void raiseFileWatcherStatus(CDEvents& URLWatcher, const std::shared_ptr<const CDEvent>& event) {
  FlagRaiser::shared().raise();
  platform::NSLog(fmt::format("[Block] URLWatcher: {}\nEvent: {}", URLWatcher.description(), event->description()));
}

FileWatcherServiceXPC::FileWatcherServiceXPC() : status_(std::make_unique<Status>()) { FlagRaiser::shared().prepare(); }

FileWatcherServiceXPC::~FileWatcherServiceXPC() {
  watching_.with([](Watching& watching) {
    if (watching.events) watching.events->setDelegate({});
  });
  end(std::chrono::steady_clock::now() + kEndPatience);
}

std::uint64_t FileWatcherServiceXPC::number() const { return status_->number(); }
std::optional<std::string> FileWatcherServiceXPC::standingFolder() const {
  if (watching_.with([](const Watching& watching) { return watching.ending != nullptr; })) return std::nullopt;
  return status_->standingFolder();
}

void FileWatcherServiceXPC::initFileWatcher() {
  platform::NSLog("inside initFilewatcher");
  setIAppsPrefs(platform::Dictionary());
  setIAppsPrefs(platform::UserDefaults::standardUserDefaults().persistentDomainForName(kApplicationDomain));
  try {
    run();
    status_->stands();
  } catch (const CDEventsCreationFailure& failure) {
    status_->failed(failure.why().empty() ? failure.reason() : failure.reason() + " (" + failure.why() + ")");
    report(failure);
  } catch (const platform::Exception& exception) {
    status_->failed(exception.reason());
    report(exception);
  } catch (...) {
    // Not ours to handle, but nobody may be left waiting for a watch that never comes.
    status_->failed("an exception of an unknown kind");
    throw;
  }
}

void FileWatcherServiceXPC::report(const platform::Exception& failure) {
  // A report that cannot be made is no reason for the service to end.
  platform::runContained("the failure could not be reported", [&] { logErrorMethod(failure); });
}

void FileWatcherServiceXPC::run() {
  platform::NSLog(fmt::format("watcher url  {}", iAppsPrefs_.objectForKey(kBasePathKey).description()));
  const std::string folder = syncFolderText(iAppsPrefs_.objectForKey(kBasePathKey).description());
  status_->watches(folder);
  std::vector<platform::URL> watched = listOfURL(folder);
  // A URL without a path is told by its text.
  if (const std::string path = watched.front().path(); !path.empty()) status_->watches(path);

  // Only this path is escaped; the base path is the text of a URL as it stands.
  const std::string downloads = platform::stringByAppendingPathComponent(platform::NSHomeDirectory(), "Downloads");
  std::vector<platform::URL> excluded = listOfURL(platform::stringByAddingPercentEscapes(downloads));

  const platform::FSEventStreamCreateFlags creationFlags = watchCreationFlags();
  if (watching_.with([](const Watching& watching) { return watching.events != nullptr; })) return;

  auto events = std::make_shared<CDEvents>(std::move(watched), raiseFileWatcherStatus, platform::RunLoop::current(), kCDEventsSinceEventNow,
                                           kNotificationLatency, false, std::move(excluded), creationFlags);
  platform::NSLog(fmt::format("-[FileWatcherServiceXPC run]:\n{}\n------\n{}", events->description(), events->streamDescription()));
  watch(std::move(events));
}

void FileWatcherServiceXPC::URLWatcher_eventOccurred(CDEvents& URLWatcher, const std::shared_ptr<const CDEvent>& event) {
  platform::NSLog(fmt::format("[Delegate] URLWatcher: {}\nEvent: {}", URLWatcher.description(), event->description()));
}

}  // namespace kestrine
