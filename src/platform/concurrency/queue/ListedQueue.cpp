#include "platform/concurrency/queue/ListedQueue.h"

#include <iterator>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/log/Contained.h"

namespace platform {

namespace {

/// The queue whose operation the calling thread is running.
thread_local ListedQueue* runningOperationQueue = nullptr;

}  // namespace

Operation::~Operation() = default;

std::shared_ptr<Operation> Operation::blockOperationWithBlock(Block block) { return std::make_shared<BlockOperation>(std::move(block)); }

void BlockOperation::run(const std::string& failure) {
  stage_ = Stage::Executing;
  if (!cancelled_) runContained(failure, [this] { block_(); });
  block_ = nullptr;
  stage_ = Stage::Finished;
}

ListedQueue::ListedQueue(std::string name)
    : name_(std::move(name)),
      failure_("an exception left an operation" + (name_.empty() ? std::string() : " of the queue \"" + name_ + "\"")) {}

void ListedQueue::addOperation(const std::shared_ptr<Operation>& operation) {
  const auto block = std::dynamic_pointer_cast<BlockOperation>(operation);
  if (!block || !block->queue()) {
    throw Exception(NSInvalidArgumentException, "an operation was added that is none, or that was added before");
  }
  enqueue(block);
}

void ListedQueue::addOperationWithBlock(Block block) {
  auto operation = std::make_shared<BlockOperation>(std::move(block));
  operation->queue();
  enqueue(std::move(operation));
}

std::vector<std::shared_ptr<Operation>> ListedQueue::operations() const {
  const MutexLock lock(mutex_);
  std::vector<std::shared_ptr<Operation>> all(executing_.begin(), executing_.end());
  all.insert(all.end(), waiting_.begin(), waiting_.end());
  return all;
}

std::size_t ListedQueue::operationCount() const {
  const MutexLock lock(mutex_);
  return executing_.size() + waiting_.size();
}

void ListedQueue::cancelAllOperations() {
  for (const auto& operation : operations()) operation->cancel();
}

void ListedQueue::waitUntilAllOperationsAreFinished() {
  MutexLock lock(mutex_);
  while (!executing_.empty() || !waiting_.empty()) idle_.wait(lock);
}

ListedQueue::Executing::iterator ListedQueue::begin(Waiting::iterator operation) {
  executing_.push_back(std::move(*operation));
  waiting_.erase(operation);
  return std::prev(executing_.end());
}

void ListedQueue::end(Executing::iterator operation) {
  executing_.erase(operation);
  if (executing_.empty() && waiting_.empty()) idle_.notifyAll();
}

void ListedQueue::run(BlockOperation& operation) {
  auto* const outer = std::exchange(runningOperationQueue, this);
  operation.run(failure_);
  runningOperationQueue = outer;
}

std::shared_ptr<OperationQueue> OperationQueue::currentQueue() {
  return runningOperationQueue == nullptr ? nullptr : runningOperationQueue->shared_from_this();
}

}  // namespace platform
