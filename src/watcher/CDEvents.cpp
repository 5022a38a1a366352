#include "watcher/CDEvents.h"

#include <fmt/format.h>

#include <utility>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/value/Object.h"
#include "watcher/CDEventsDelegate.h"
#include "watcher/CDEventsImpl.h"

namespace kestrine {

namespace {

constexpr double kDefaultNotificationLatency = 3.0;
constexpr bool kDefaultIgnoreEventsFromSubDirectories = false;

[[noreturn]] void throwInvalidArguments() {
  throw platform::Exception(platform::NSInvalidArgumentException, "Invalid arguments passed to CDEvents init-method.");
}

// The block of the delegate form. It asks the stream that delivers, so that it serves whatever delegate is set at that moment.
void forwardToDelegate(CDEvents& URLWatcher, const std::shared_ptr<const CDEvent>& event) {
  if (const std::shared_ptr<CDEventsDelegate> delegate = URLWatcher.delegate()) delegate->URLWatcher_eventOccurred(URLWatcher, event);
}

std::weak_ptr<CDEventsDelegate> present(std::weak_ptr<CDEventsDelegate> delegate) {
  if (delegate.expired()) throwInvalidArguments();
  return delegate;
}

CDEventsEventBlock present(CDEventsEventBlock block) {
  if (!block) throwInvalidArguments();
  return block;
}

std::vector<platform::URL> present(std::vector<platform::URL> URLs) {
  if (URLs.empty()) throwInvalidArguments();
  return URLs;
}

}  // namespace

CDEvents::CDEvents(std::vector<platform::URL> URLs, std::weak_ptr<CDEventsDelegate> delegate)
    : CDEvents(std::move(URLs), std::move(delegate), platform::RunLoop::current()) {}

CDEvents::CDEvents(std::vector<platform::URL> URLs, std::weak_ptr<CDEventsDelegate> delegate,
                   const std::shared_ptr<platform::RunLoop>& onRunLoop)
    : CDEvents(std::move(URLs), std::move(delegate), onRunLoop, kCDEventsSinceEventNow, kDefaultNotificationLatency,
               kDefaultIgnoreEventsFromSubDirectories, std::nullopt, kCDEventsDefaultEventStreamFlags) {}

CDEvents::CDEvents(std::vector<platform::URL> URLs, std::weak_ptr<CDEventsDelegate> delegate,
                   const std::shared_ptr<platform::RunLoop>& onRunLoop, platform::FSEventStreamEventId sinceEventIdentifier,
                   double notificationLantency, bool ignoreEventsFromSubDirs, std::optional<std::vector<platform::URL>> excludeURLs,
                   platform::FSEventStreamCreateFlags streamCreationFlags)
    : impl_(std::make_shared<Impl>(*this,
                                   Impl::Configuration{.eventBlock = forwardToDelegate,
                                                       .sinceEventIdentifier = sinceEventIdentifier,
                                                       .eventStreamCreationFlags = streamCreationFlags,
                                                       .notificationLatency = notificationLantency},
                                   Impl::Settings{.watchedURLs = present(std::move(URLs)),
                                                  .excludedURLs = std::move(excludeURLs),
                                                  .delegate = present(std::move(delegate)),
                                                  .lastEvent = {}},
                                   ignoreEventsFromSubDirs)) {
  createEventStream();
  startOnRunLoop(onRunLoop);
}

CDEvents::CDEvents(std::vector<platform::URL> URLs, CDEventsEventBlock block)
    : CDEvents(std::move(URLs), std::move(block), platform::RunLoop::current()) {}

CDEvents::CDEvents(std::vector<platform::URL> URLs, CDEventsEventBlock block, const std::shared_ptr<platform::RunLoop>& onRunLoop)
    : CDEvents(std::move(URLs), std::move(block), onRunLoop, kCDEventsSinceEventNow, kDefaultNotificationLatency,
               kDefaultIgnoreEventsFromSubDirectories, std::nullopt, kCDEventsDefaultEventStreamFlags) {}

CDEvents::CDEvents(std::vector<platform::URL> URLs, CDEventsEventBlock block, const std::shared_ptr<platform::RunLoop>& onRunLoop,
                   platform::FSEventStreamEventId sinceEventIdentifier, double notificationLantency, bool ignoreEventsFromSubDirs,
                   std::optional<std::vector<platform::URL>> excludeURLs, platform::FSEventStreamCreateFlags streamCreationFlags)
    : impl_(std::make_shared<Impl>(
          *this,
          Impl::Configuration{.eventBlock = present(std::move(block)),
                              .sinceEventIdentifier = sinceEventIdentifier,
                              .eventStreamCreationFlags = streamCreationFlags,
                              .notificationLatency = notificationLantency},
          Impl::Settings{.watchedURLs = present(std::move(URLs)), .excludedURLs = std::move(excludeURLs), .delegate = {}, .lastEvent = {}},
          ignoreEventsFromSubDirs)) {
  createEventStream();
  startOnRunLoop(onRunLoop);
}

CDEvents::~CDEvents() {
  impl_->abandon();
  disposeEventStream();
  setDelegate({});
}

void CDEvents::createEventStream() {
  std::vector<std::string> paths;
  const std::vector<platform::URL> URLs = watchedURLs();
  paths.reserve(URLs.size());
  for (const platform::URL& url : URLs) paths.push_back(url.path());

  // The stream does not keep its CDEvents alive. It need not: its end, which the destructor begins with, waits for a call of this.
  auto callback = [this](platform::FSEventStream&, std::span<const platform::FSEvent> events) { CDEventsCallback(*this, events); };
  impl_->eventStream =
      std::make_unique<platform::FSEventStream>(std::move(callback), std::move(paths), impl_->configuration.sinceEventIdentifier,
                                                impl_->configuration.notificationLatency, impl_->configuration.eventStreamCreationFlags);
}

void CDEvents::startOnRunLoop(const std::shared_ptr<platform::RunLoop>& runLoop) {
  if (runLoop) impl_->eventStream->scheduleWithRunLoop(runLoop);
  if (!impl_->eventStream->start()) {
    const platform::Object why = impl_->eventStream->status().objectForKey("error");
    throw CDEventsCreationFailure(why.isString() ? why.stringValue() : std::string());
  }
}

void CDEvents::disposeEventStream() {
  if (!impl_->eventStream) return;
  impl_->eventStream->stop();
  impl_->eventStream->invalidate();
  impl_->eventStream.reset();
}

std::unique_ptr<CDEvents> CDEvents::copyWithZone() const {
  return std::make_unique<CDEvents>(watchedURLs(), eventBlock(), platform::RunLoop::current(), sinceEventIdentifier(),
                                    notificationLatency(), ignoreEventsFromSubDirectories(), excludedURLs(),
                                    impl_->configuration.eventStreamCreationFlags);
}

std::shared_ptr<CDEventsDelegate> CDEvents::delegate() const { return impl_->get(&Impl::Settings::delegate).lock(); }
void CDEvents::setDelegate(const std::weak_ptr<CDEventsDelegate>& delegate) { impl_->set(&Impl::Settings::delegate, delegate); }

CDEventsEventBlock CDEvents::eventBlock() const { return impl_->configuration.eventBlock; }
double CDEvents::notificationLatency() const { return impl_->configuration.notificationLatency; }
platform::FSEventStreamEventId CDEvents::sinceEventIdentifier() const { return impl_->configuration.sinceEventIdentifier; }

std::shared_ptr<const CDEvent> CDEvents::lastEvent() const { return impl_->get(&Impl::Settings::lastEvent); }
void CDEvents::setLastEvent(std::shared_ptr<const CDEvent> event) { impl_->set(&Impl::Settings::lastEvent, std::move(event)); }

std::vector<platform::URL> CDEvents::watchedURLs() const { return impl_->get(&Impl::Settings::watchedURLs); }
void CDEvents::setWatchedURLs(std::vector<platform::URL> URLs) { impl_->set(&Impl::Settings::watchedURLs, std::move(URLs)); }
std::optional<std::vector<platform::URL>> CDEvents::excludedURLs() const { return impl_->get(&Impl::Settings::excludedURLs); }
void CDEvents::setExcludedURLs(std::optional<std::vector<platform::URL>> URLs) {
  impl_->set(&Impl::Settings::excludedURLs, std::move(URLs));
}

bool CDEvents::ignoreEventsFromSubDirectories() const { return impl_->ignoreEventsFromSubDirectories; }
void CDEvents::setIgnoreEventsFromSubDirectories(bool ignore) { impl_->ignoreEventsFromSubDirectories = ignore; }

void CDEvents::flushSynchronously() { impl_->eventStream->flushSync(); }
void CDEvents::flushAsynchronously() { impl_->eventStream->flushAsync(); }
platform::FSEventStreamEventId CDEvents::currentEventIdentifier() { return platform::FSEventsGetCurrentEventId(); }

std::string CDEvents::description() const {
  platform::Array URLs;
  for (const platform::URL& url : watchedURLs()) URLs.emplace_back(url.description());
  return fmt::format("<CDEvents: {} {{ watchedURLs = {} }}>", fmt::ptr(this), platform::Object(std::move(URLs)).description());
}

std::string CDEvents::streamDescription() const { return impl_->eventStream->copyDescription(); }

}  // namespace kestrine
