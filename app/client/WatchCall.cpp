#include "app/client/WatchCall.h"

#include <utility>

#include "contract/FileWatcherXpcServiceProtocol.h"
#include "contract/ServiceName.h"
#include "platform/xpc/connection/XPCConnection.h"

namespace kestrine {

void WatchCall::End::tell(std::string reason) {
  const platform::MutexLock lock(mutex_);
  if (!reason_) reason_ = std::move(reason);
  told_.notifyAll();
}

std::optional<std::string> WatchCall::End::waitFor(std::chrono::milliseconds duration) {
  const auto deadline = std::chrono::steady_clock::now() + duration;
  platform::MutexLock lock(mutex_);
  while (!reason_ && told_.waitUntil(lock, deadline)) {
  }
  return reason_;
}

WatchCall::WatchCall() : connection_(platform::XPCConnection::connectionWithServiceName(kServiceName)) {
  connection_->setRemoteObjectInterface(fileWatcherXpcServiceInterface());
  connection_->setInterruptionHandler([end = end_] { end->tell("the service ended while it was asked to watch"); });
  connection_->setInvalidationHandler([end = end_, connection = std::weak_ptr(connection_)] {
    const auto alive = connection.lock();
    end->tell(alive ? alive->lastErrorDescription() : std::string());
  });
  connection_->resume();
  connection_->callRemote(kCallToFileWatcherSelector);
}

WatchCall::~WatchCall() { connection_->invalidate(); }

std::optional<std::string> WatchCall::waitForEnd(std::chrono::milliseconds duration) const { return end_->waitFor(duration); }

}  // namespace kestrine
