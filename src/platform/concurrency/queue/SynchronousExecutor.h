#pragma once

#include <memory>

#include "platform/concurrency/queue/OperationQueue.h"
#include "platform/foundation/process/NotificationCenter.h"

namespace platform {

/// How a notification centre reaches the observers on `queue`: a block is run as one of its operations, and the caller waits for it. On the
/// queue itself (for the main queue: on the main thread) the block is run at once. The caller waits for as long as the queue is suspended
/// or, for the main queue, the main run loop is not run. An exception that leaves the block ends at the queue, or at once goes to the
/// caller. Threads: any.
SynchronousExecutor synchronousExecutor(std::shared_ptr<OperationQueue> queue);

}  // namespace platform
