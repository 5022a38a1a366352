#include "platform/concurrency/queue/SynchronousExecutor.h"

#include <future>
#include <utility>

#include "platform/concurrency/loop/RunLoop.h"

namespace platform {

namespace {

bool isOn(const std::shared_ptr<OperationQueue>& queue) {
  return OperationQueue::currentQueue() == queue || (queue == OperationQueue::mainQueue() && RunLoop::main()->isCurrent());
}

}  // namespace

SynchronousExecutor synchronousExecutor(std::shared_ptr<OperationQueue> queue) {
  return [queue = std::move(queue)](const std::function<void()>& block) {
    if (isOn(queue)) return block();
    // Shared: the waiter may go on while the other side is still inside its promise.
    const auto done = std::make_shared<std::promise<void>>();
    const auto ended = done->get_future();
    queue->addOperationWithBlock([&block, done] {
      // However the block ends.
      const std::shared_ptr<void> tell(nullptr, [&done](void*) { done->set_value(); });
      block();
    });
    ended.wait();
  };
}

}  // namespace platform
