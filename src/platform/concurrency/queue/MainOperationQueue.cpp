#include <algorithm>
#include <memory>
#include <utility>

#include "platform/concurrency/queue/ListedQueue.h"
#include "platform/concurrency/queue/SerialQueue.h"

namespace platform {

namespace {

/// Each operation is a block of the main queue, so that it keeps its place among the others there.
class MainOperationQueue final : public ListedQueue {
 public:
  using ListedQueue::ListedQueue;
  [[nodiscard]] int maxConcurrentOperationCount() const override { return 1; }
  void setMaxConcurrentOperationCount(int /*count*/) override {}
  [[nodiscard]] bool isSuspended() const override { return false; }
  void setSuspended(bool /*suspended*/) override {}

 private:
  void enqueue(std::shared_ptr<BlockOperation> operation) override {
    {
      const MutexLock lock(mutex_);
      waiting_.push_back(operation);
    }
    // Not with the lock held: the main thread would wake up only to wait for it. Another thread's operation may come to the main queue
    // before it, so each block knows its own.
    platform::mainQueue()->async([this, operation = std::move(operation)] { runOne(operation); });
  }

  void runOne(const std::shared_ptr<BlockOperation>& operation) {
    MutexLock lock(mutex_);
    const auto begun = begin(std::find(waiting_.begin(), waiting_.end(), operation));
    lock.unlock();
    run(*operation);
    lock.lock();
    end(begun);
  }
};

}  // namespace

std::shared_ptr<OperationQueue> OperationQueue::mainQueue() {
  static const auto& queue = *new std::shared_ptr<OperationQueue>(std::make_shared<MainOperationQueue>("main"));
  return queue;
}

}  // namespace platform
