#include "service/WatchOnMessage.h"

#include "platform/foundation/log/Log.h"
#include "platform/xpc/connection/Connection.h"
#include "platform/xpc/connection/RunningCall.h"
#include "service/FileWatcherXpcService.h"
#include "watcher/WatchClient.h"

namespace kestrine {

void startWatchOnEveryMessage(const std::shared_ptr<XPCConnection>& connection) { connection->setEventHandler(startWatch); }

void startWatch(const platform::Object& /*message*/, const std::shared_ptr<XPCConnection>& connection) {
  const auto running = platform::xpc::RunningCall::begin(connection ? connection->connection()->pid() : 0);
  if (!running) return platform::NSLog("a message starts no watch: too many calls are running");
  const auto client = std::make_shared<WatchClient>();
  if (connection) connection->connection()->setGoneHandler([client] { WatchClient::leave(client); });
  FileWatcherXpcService(client).callToFileWatcher();
}

}  // namespace kestrine
