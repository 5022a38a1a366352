#include "service/ServiceDelegate.h"

#include "contract/FileWatcherXpcServiceProtocol.h"
#include "platform/xpc/connection/XPCConnection.h"
#include "service/FileWatcherXpcService.h"
#include "watcher/WatchClient.h"

namespace kestrine {

bool ServiceDelegate::listener_shouldAcceptNewConnection(platform::XPCListener& /*listener*/,
                                                         const std::shared_ptr<platform::XPCConnection>& newConnection) {
  newConnection->setExportedInterface(fileWatcherXpcServiceInterface());
  const auto client = std::make_shared<WatchClient>();
  newConnection->setGoneHandler([client] { WatchClient::leave(client); });
  newConnection->setExportedObject<FileWatcherXpcServiceProtocol>(std::make_shared<FileWatcherXpcService>(client));
  newConnection->resume();
  return true;
}

}  // namespace kestrine
