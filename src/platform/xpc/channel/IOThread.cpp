#include "platform/xpc/channel/IOThread.h"

#include <cassert>
#include <utility>

#include "platform/concurrency/thread/ServingThread.h"

namespace platform::xpc {

namespace {

const ServingThread& thread() {
  static const auto& made = *new ServingThread("xpc-io", "xpc: a failure on the channel's thread was contained");
  return made;
}

}  // namespace

RunLoop& ioLoop() { return thread().loop(); }

void onIOThread(Block block) { thread().perform(std::move(block)); }

bool isIOThread() { return ioLoop().isCurrent(); }

void assertOnIOThread() { assert(isIOThread()); }

}  // namespace platform::xpc
