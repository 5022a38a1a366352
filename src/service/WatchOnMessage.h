#pragma once

#include <memory>

#include "platform/foundation/value/Object.h"
#include "xpc/XPCConnection.h"

namespace kestrine {

/// How the service answers its peers where it has no listener; the connection handler that `main` gives to XPCService.
/// Makes every message on `connection` start a watch. Threads: the main queue.
void startWatchOnEveryMessage(const std::shared_ptr<XPCConnection>& connection);

/// The event handler that it sets: whatever the message is, starts a watch with an exported object of its own, and stays in it for as long
/// as it lasts. So the first watch of a connection holds up what the same peer sends later, and lasts when the peer is gone, until
/// another one of the same folder stands. Where too many calls are running, the message is logged and starts none.
/// Threads: the connection's queue, whose thread becomes the watch's.
void startWatch(const platform::Object& message, const std::shared_ptr<XPCConnection>& connection);

}  // namespace kestrine
