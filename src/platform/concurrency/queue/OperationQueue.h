#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/concurrency/loop/Block.h"

namespace platform {

/// A block with a state, to be run by an operation queue.
///
/// | state     | cancel                                                             |
/// |-----------|--------------------------------------------------------------------|
/// | waiting   | its queue takes it as finished, when its turn comes, without running it |
/// | executing | sets the mark only; the block may look at it                       |
/// | finished  | sets the mark                                                      |
///
/// Threads: any thread may call anything.
class Operation {
 public:
  static std::shared_ptr<Operation> blockOperationWithBlock(Block block);
  virtual ~Operation();
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  virtual void cancel() = 0;
  [[nodiscard]] virtual bool isCancelled() const = 0;
  [[nodiscard]] virtual bool isExecuting() const = 0;
  [[nodiscard]] virtual bool isFinished() const = 0;

 protected:
  Operation() = default;
};

/// Runs operations on borrowed threads, several at once, begun in the order in which they were added. There are no priorities and no
/// dependencies.
///
/// Guarantees:
///  1. Each operation that is not cancelled before its turn runs once. What the adding thread wrote before is visible to it.
///  2. With a maximum of 1 an operation begins after the former one ended and sees everything that it wrote.
///  3. The queue lives until its last operation ended, also when its owner let go of it; destroying the handle does not wait. What waits in
///     a suspended queue that nobody holds is destroyed unrun.
///  4. While suspended no operation begins; running ones end.
///  5. An exception that leaves an operation is said in the log and ends there.
///
/// Threads: any thread may call anything.
class OperationQueue {
 public:
  /// As many at once as the platform lends: 64.
  static constexpr int kDefaultMaxConcurrentOperationCount = -1;

  static std::shared_ptr<OperationQueue> create(std::string name = {});
  /// The queue of the main thread, whose run loop runs its operations one after another. It cannot be suspended, and its maximum is 1.
  static std::shared_ptr<OperationQueue> mainQueue();
  /// The queue whose operation the calling thread is running; nothing elsewhere.
  static std::shared_ptr<OperationQueue> currentQueue();

  virtual ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  /// An operation can be added once, to one queue: otherwise throws Exception(NSInvalidArgumentException).
  virtual void addOperation(const std::shared_ptr<Operation>& operation) = 0;
  virtual void addOperationWithBlock(Block block) = 0;
  /// Those that have not finished, in the order in which they were added: executing ones first, then waiting ones.
  [[nodiscard]] virtual std::vector<std::shared_ptr<Operation>> operations() const = 0;
  [[nodiscard]] virtual std::size_t operationCount() const = 0;
  virtual void cancelAllOperations() = 0;
  /// Returns when nothing is waiting or executing. Called by an operation of the same queue it deadlocks, as on the platform.
  virtual void waitUntilAllOperationsAreFinished() = 0;

  [[nodiscard]] virtual int maxConcurrentOperationCount() const = 0;
  /// Throws Exception(NSInvalidArgumentException) for less than 1 that is not the default.
  virtual void setMaxConcurrentOperationCount(int count) = 0;
  [[nodiscard]] virtual bool isSuspended() const = 0;
  virtual void setSuspended(bool suspended) = 0;
  [[nodiscard]] virtual const std::string& name() const = 0;

 protected:
  OperationQueue() = default;
};

}  // namespace platform
