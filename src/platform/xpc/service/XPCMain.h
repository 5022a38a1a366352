#pragma once

#include <memory>

#include "platform/xpc/connection/Connection.h"

namespace platform {

/// Hosts the process's service at the level of messages: calls `function` with each new peer's connection, suspended, one peer at a time.
/// It sets the handler and resumes it; what the peer sent is read only after it has returned, so no first message is lost. A connection
/// that it neither keeps nor resumes is closed.
///
/// Runs the main run loop, and so the main queue, until the process ends. See xpc::ServiceProcess, whose `begin` has been called before.
/// Threads: the main thread.
[[noreturn]] void xpc_main(void (*function)(const std::shared_ptr<xpc::Connection>& connection));

}  // namespace platform
