#pragma once

#include <memory>

#include "platform/xpc/service/XPCListener.h"

namespace kestrine {

/// Accepts every connection, each with an exported object of its own. Who connects is not checked: the socket is the user's alone.
/// Threads: any.
class ServiceDelegate : public platform::XPCListenerDelegate {
 public:
  bool listener_shouldAcceptNewConnection(platform::XPCListener& listener,
                                          const std::shared_ptr<platform::XPCConnection>& newConnection) override;
};

}  // namespace kestrine
