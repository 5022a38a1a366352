#include "service/WatchOnMessage.h"

#include "service/FileWatcherXpcService.h"

namespace kestrine {

void startWatchOnEveryMessage(const std::shared_ptr<XPCConnection>& connection) { connection->setEventHandler(startWatch); }

void startWatch(const platform::Object& /*message*/, const std::shared_ptr<XPCConnection>& /*connection*/) {
  FileWatcherXpcService().callToFileWatcher();
}

}  // namespace kestrine
