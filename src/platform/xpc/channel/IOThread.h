#pragma once

#include <functional>

#include "platform/concurrency/RunLoop.h"

// Internal to the channel: one thread serves all sockets of the process. It is made with the first use and lives as long as the process.
namespace platform::xpc {

/// The thread's run loop.
RunLoop& ioLoop();
/// Runs `block` on the thread; blocks run in the order given. An exception that leaves one is logged and ends there. Any thread.
void onIOThread(std::function<void()> block);
/// Whether the caller is that thread.
[[nodiscard]] bool isIOThread();

}  // namespace platform::xpc
