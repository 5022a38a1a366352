#pragma once

#include "platform/concurrency/loop/Block.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Mutex.h"

// Internal to the network room: one thread drives the sockets of every session. It is started with the first use, sleeps while nothing
// happens, never runs a caller's code, and is parked before the process's exit takes its libraries down.
namespace platform::network {

/// The thread's run loop.
RunLoop& networkLoop();
/// Runs `block` on the thread; blocks run in the order given, and are destroyed there. An exception that leaves one is logged and ends
/// there. Any thread.
void onNetworkThread(Block block);

/// The right to touch what only the network thread touches.
inline ThreadRole networkThread;
/// Says that the caller runs on it: in blocks, and where C code calls back, neither of which the analysis can follow. Checked in builds for
/// debugging.
void assertOnNetworkThread() ASSERT_CAPABILITY(networkThread);

/// What the log says before the reason of a failure that had nobody else to be told to.
inline constexpr const char* kNetworkFailure = "network: a failure on the network's thread was contained";

}  // namespace platform::network
