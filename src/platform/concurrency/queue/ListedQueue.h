#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/concurrency/queue/OperationQueue.h"
#include "platform/foundation/base/Mutex.h"

namespace platform {

/// The one kind of operation. Threads: any; `run` once, by its queue.
class BlockOperation final : public Operation {
 public:
  explicit BlockOperation(Block block) : block_(std::move(block)) {}

  void cancel() override { cancelled_ = true; }
  [[nodiscard]] bool isCancelled() const override { return cancelled_; }
  [[nodiscard]] bool isExecuting() const override { return stage_ == Stage::Executing; }
  [[nodiscard]] bool isFinished() const override { return stage_ == Stage::Finished; }

  /// Whether it was not queued before.
  bool queue() { return !queued_.exchange(true); }

  /// Runs the block, unless cancelled, and lets go of what it captured. `failure`: what the log says before that which left it.
  void run(const std::string& failure);

 private:
  enum class Stage { Waiting, Executing, Finished };
  Block block_;
  std::atomic<bool> queued_ = false;
  std::atomic<bool> cancelled_ = false;
  std::atomic<Stage> stage_ = Stage::Waiting;
};

/// What the operation queues of the pool and of the main thread share: the lists of operations. Threads: any.
class ListedQueue : public OperationQueue, public std::enable_shared_from_this<ListedQueue> {
 public:
  explicit ListedQueue(std::string name);

  void addOperation(const std::shared_ptr<Operation>& operation) final;
  void addOperationWithBlock(Block block) final;
  [[nodiscard]] std::vector<std::shared_ptr<Operation>> operations() const final EXCLUDES(mutex_);
  [[nodiscard]] std::size_t operationCount() const final EXCLUDES(mutex_);
  void cancelAllOperations() final EXCLUDES(mutex_);
  void waitUntilAllOperationsAreFinished() final EXCLUDES(mutex_);
  [[nodiscard]] const std::string& name() const final { return name_; }

 protected:
  using Waiting = std::deque<std::shared_ptr<BlockOperation>>;
  using Executing = std::list<std::shared_ptr<BlockOperation>>;

  /// Takes an operation that was not queued before.
  virtual void enqueue(std::shared_ptr<BlockOperation> operation) EXCLUDES(mutex_) = 0;
  /// Moves a waiting operation to the executing ones.
  Executing::iterator begin(Waiting::iterator operation) REQUIRES(mutex_);
  void end(Executing::iterator operation) REQUIRES(mutex_);
  /// Runs an operation as one of this queue's.
  void run(BlockOperation& operation) EXCLUDES(mutex_);

  mutable Mutex mutex_;
  Waiting waiting_ GUARDED_BY(mutex_);
  Executing executing_ GUARDED_BY(mutex_);

 private:
  const std::string name_;
  /// For the log.
  const std::string failure_;
  Condition idle_;
};

}  // namespace platform
