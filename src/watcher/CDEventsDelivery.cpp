#include <utility>

#include "platform/foundation/files/Paths.h"
#include "platform/foundation/value/Object.h"
#include "watcher/CDEvent.h"
#include "watcher/CDEventsFilter.h"
#include "watcher/CDEventsImpl.h"

namespace kestrine {

CDEvents::Impl::Impl(CDEvents& owner, Configuration configuration)
    : eventBlock(std::move(configuration.eventBlock)),
      sinceEventIdentifier(configuration.sinceEventIdentifier),
      eventStreamCreationFlags(configuration.eventStreamCreationFlags),
      notificationLatency(configuration.notificationLatency),
      watchedURLs(std::move(configuration.watchedURLs)),
      excludedURLs(std::move(configuration.excludedURLs)),
      delegate(std::move(configuration.delegate)),
      ignoreEventsFromSubDirectories(configuration.ignoreEventsFromSubDirectories),
      owner_(owner) {}

void CDEvents::Impl::deliver(std::span<const platform::FSEvent> events) {
  const CDEventsFilter filter(read(watchedURLs), read(excludedURLs));
  std::shared_ptr<const CDEvent> last;
  for (const platform::FSEvent& event : events) {
    if (abandoned_) return;
    platform::URL url = platform::URL::fileURLWithPath(platform::stringByStandardizingPath(event.path));
    if (filter.ignores(url.path(), ignoreEventsFromSubDirectories)) continue;
    last = CDEvent::eventWithIdentifier_date_URL_flags(event.id, platform::Date::now(), std::move(url), event.flags);
    eventBlock(owner_, last);
  }
  if (last && !abandoned_) exchange(lastEvent, std::move(last));
}

void CDEventsCallback(CDEvents& info, std::span<const platform::FSEvent> events) {
  // Held here, since the handler may destroy `info`.
  const std::shared_ptr<CDEvents::Impl> impl = info.impl_;
  impl->deliver(events);
}

}  // namespace kestrine
