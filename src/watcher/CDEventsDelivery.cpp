#include <utility>

#include "platform/foundation/files/Paths.h"
#include "platform/foundation/value/Object.h"
#include "watcher/CDEvent.h"
#include "watcher/CDEventsFilter.h"
#include "watcher/CDEventsImpl.h"

namespace kestrine {

CDEvents::Impl::Impl(CDEvents& owner, Configuration configuration, Settings settings, bool ignoreEventsFromSubDirectories)
    : configuration(std::move(configuration)),
      ignoreEventsFromSubDirectories(ignoreEventsFromSubDirectories),
      owner_(owner),
      settings_(std::move(settings)) {}

void CDEvents::Impl::deliver(std::span<const platform::FSEvent> events) {
  const CDEventsFilter filter(get(&Settings::watchedURLs), get(&Settings::excludedURLs));
  std::shared_ptr<const CDEvent> last;
  for (const platform::FSEvent& event : events) {
    if (abandoned_) return;
    platform::URL url = platform::URL::fileURLWithPath(platform::stringByStandardizingPath(event.path));
    if (filter.ignores(url.path(), ignoreEventsFromSubDirectories)) continue;
    last = CDEvent::eventWithIdentifier_date_URL_flags(event.id, platform::Date::now(), std::move(url), event.flags);
    configuration.eventBlock(owner_, last);
  }
  if (last && !abandoned_) set(&Settings::lastEvent, std::move(last));
}

void CDEventsCallback(CDEvents& info, std::span<const platform::FSEvent> events) {
  // Held here, since the handler may destroy `info`.
  const std::shared_ptr<CDEvents::Impl> impl = info.impl_;
  impl->deliver(events);
}

}  // namespace kestrine
