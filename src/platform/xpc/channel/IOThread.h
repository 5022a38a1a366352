#pragma once

#include "platform/concurrency/loop/Block.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Mutex.h"

// Internal to the channel: one thread serves all sockets of the process. It is made with the first use and lives as long as the process.
namespace platform::xpc {

/// The right to touch what only that thread touches: such members are GUARDED_BY it, and functions that use them REQUIRE it.
inline const ThreadRole kIOThread{};

/// The thread's run loop.
RunLoop& ioLoop();
/// Runs `block` on the thread; blocks run in the order given, and are destroyed there. An exception that leaves one is logged and ends
/// there. Any thread.
void onIOThread(Block block);
/// Whether the caller is that thread.
[[nodiscard]] bool isIOThread();
/// The first line of what the thread's loop calls, where the compiler cannot see on which thread that is.
void assertOnIOThread() ASSERT_CAPABILITY(kIOThread);

}  // namespace platform::xpc
