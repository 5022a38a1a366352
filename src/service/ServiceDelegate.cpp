#include "service/ServiceDelegate.h"

#include "contract/FileWatcherXpcServiceProtocol.h"
#include "platform/xpc/connection/XPCConnection.h"
#include "service/FileWatcherXpcService.h"

namespace kestrine {

bool ServiceDelegate::listener_shouldAcceptNewConnection(platform::XPCListener& /*listener*/,
                                                         const std::shared_ptr<platform::XPCConnection>& newConnection) {
  newConnection->setExportedInterface(fileWatcherXpcServiceInterface());
  newConnection->setExportedObject<FileWatcherXpcServiceProtocol>(std::make_shared<FileWatcherXpcService>());
  newConnection->resume();
  return true;
}

}  // namespace kestrine
