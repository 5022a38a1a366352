#pragma once

#include <functional>

#include "platform/concurrency/RunLoop.h"

// Internal to the network room: one thread drives the sockets of every session. It is started with the first use, sleeps while nothing
// happens, never runs a caller's code, and is parked before the process's exit takes its libraries down.
namespace platform::network {

/// The thread's run loop.
RunLoop& networkLoop();
/// Runs `block` on the thread; blocks run in the order given. An exception that leaves one is logged and ends there. Any thread.
void onNetworkThread(std::function<void()> block);

}  // namespace platform::network
