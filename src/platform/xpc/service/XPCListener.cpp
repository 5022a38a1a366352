#include "platform/xpc/service/XPCListener.h"

#include <utility>

#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/log/Log.h"
#include "platform/xpc/connection/Connection.h"
#include "platform/xpc/connection/XPCConnection.h"
#include "platform/xpc/service/ServiceProcess.h"

namespace platform {

struct XPCListener::Impl {
  Guarded<std::weak_ptr<XPCListenerDelegate>> delegate;
};

XPCListener::XPCListener() : impl_(std::make_unique<Impl>()) {}
XPCListener::~XPCListener() = default;

XPCListener& XPCListener::serviceListener() {
  static auto& listener = *new XPCListener;
  return listener;
}

void XPCListener::setDelegate(std::weak_ptr<XPCListenerDelegate> delegate) {
  impl_->delegate.with([&delegate](auto& kept) { kept = std::move(delegate); });
}

std::shared_ptr<XPCListenerDelegate> XPCListener::delegate() const {
  return impl_->delegate.with([](const auto& kept) { return kept.lock(); });
}

void XPCListener::resume() {
  xpc::ServiceProcess::serve([this](const std::shared_ptr<xpc::Connection>& peer) {
    const auto connection = XPCConnection::connectionWithPeer(peer);
    const auto asked = delegate();
    if (asked && asked->listener_shouldAcceptNewConnection(*this, connection)) return;
    NSLog(asked ? "xpc: a new connection was refused" : "xpc: a new connection was refused, because the listener has no delegate");
    connection->invalidate();
  });
}

}  // namespace platform
