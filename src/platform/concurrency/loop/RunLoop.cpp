#include "platform/concurrency/loop/RunLoop.h"

#include "platform/concurrency/loop/ThreadLoops.h"

namespace platform {

RunLoop::~RunLoop() = default;

std::shared_ptr<RunLoop> RunLoop::main() { return mainEventLoop(); }

std::shared_ptr<RunLoop> RunLoop::current() { return currentEventLoop(); }

}  // namespace platform
