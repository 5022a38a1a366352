#include "service/XPCService.h"

#include <any>
#include <utility>

#include "platform/concurrency/queue/OperationQueue.h"
#include "platform/concurrency/queue/SynchronousExecutor.h"
#include "platform/foundation/process/NotificationCenter.h"
#include "platform/xpc/service/XPCMain.h"

namespace kestrine {

using platform::Notification;
using platform::NotificationCenter;
using platform::OperationQueue;

void XPCService::runServiceWithConnectionHandler(ConnectionHandler connectionHandler) {
  [[maybe_unused]] const auto service = initWithConnectionHandler(std::move(connectionHandler));
  runService();
}

void XPCService::runService() { platform::xpc_main(XPCServiceConnectionHandler); }

std::shared_ptr<XPCService> XPCService::initWithConnectionHandler(ConnectionHandler connectionHandler) {
  std::shared_ptr<XPCService> self(new XPCService(std::move(connectionHandler)));
  NotificationCenter::defaultCenter()
      .addObserver(kXPCConnectionReceivedNotification, platform::synchronousExecutor(OperationQueue::mainQueue()),
                   [self](const Notification& notification) {
                     self->handleConnection(std::any_cast<const std::shared_ptr<XPCConnection>&>(notification.object));
                   })
      .detach();
  return self;
}

void XPCService::handleConnection(const std::shared_ptr<XPCConnection>& connection) {
  if (!connections_) connections_ = std::make_shared<Connections>();
  connections_->push_back(connection);
  if (connectionHandler_) connectionHandler_(connection);
}

void XPCServiceConnectionHandler(const std::shared_ptr<platform::xpc::Connection>& connection) {
  const auto wrapper = XPCConnection::initWithConnection(connection);
  NotificationCenter::defaultCenter().postNotification({kXPCConnectionReceivedNotification, wrapper});
}

}  // namespace kestrine
