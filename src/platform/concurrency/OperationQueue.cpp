#include "platform/concurrency/OperationQueue.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <list>
#include <utility>

#include "platform/concurrency/SerialQueue.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/log/Contained.h"

namespace platform {

namespace {

constexpr int kLentAtMost = 64;

/// The queue whose operation the calling thread is running.
thread_local OperationQueue* runningOperationQueue = nullptr;

class BlockOperation final : public Operation {
 public:
  explicit BlockOperation(std::function<void()> block) : block_(std::move(block)) {}

  void cancel() override { cancelled_ = true; }
  [[nodiscard]] bool isCancelled() const override { return cancelled_; }
  [[nodiscard]] bool isExecuting() const override { return stage_ == Stage::Executing; }
  [[nodiscard]] bool isFinished() const override { return stage_ == Stage::Finished; }

  /// Whether it was not queued before.
  bool queue() { return !queued_.exchange(true); }

  /// Runs the block, unless cancelled, and lets go of what it captured. `failure`: what the log says before that which left it.
  void run(const std::string& failure) {
    stage_ = Stage::Executing;
    if (block_ && !cancelled_) runContained(failure, block_);
    block_ = nullptr;
    stage_ = Stage::Finished;
  }

 private:
  enum class Stage { Waiting, Executing, Finished };
  std::function<void()> block_;
  std::atomic<bool> queued_ = false;
  std::atomic<bool> cancelled_ = false;
  std::atomic<Stage> stage_ = Stage::Waiting;
};

/// What both kinds of queue share: the lists of operations.
class ListedQueue : public OperationQueue, public std::enable_shared_from_this<ListedQueue> {
 public:
  explicit ListedQueue(std::string name)
      : name_(std::move(name)),
        failure_("an exception left an operation" + (name_.empty() ? std::string() : " of the queue \"" + name_ + "\"")) {}

  void addOperation(const std::shared_ptr<Operation>& operation) override {
    const auto block = std::dynamic_pointer_cast<BlockOperation>(operation);
    if (!block || !block->queue()) {
      throw Exception(NSInvalidArgumentException, "an operation was added that is none, or that was added before");
    }
    enqueue(block);
  }

  void addOperationWithBlock(std::function<void()> block) override {
    auto operation = std::make_shared<BlockOperation>(std::move(block));
    operation->queue();
    enqueue(std::move(operation));
  }

  [[nodiscard]] std::vector<std::shared_ptr<Operation>> operations() const override {
    const MutexLock lock(mutex_);
    std::vector<std::shared_ptr<Operation>> all(executing_.begin(), executing_.end());
    all.insert(all.end(), waiting_.begin(), waiting_.end());
    return all;
  }

  [[nodiscard]] std::size_t operationCount() const override {
    const MutexLock lock(mutex_);
    return executing_.size() + waiting_.size();
  }

  void cancelAllOperations() override {
    for (const auto& operation : operations()) operation->cancel();
  }

  void waitUntilAllOperationsAreFinished() override {
    MutexLock lock(mutex_);
    while (!executing_.empty() || !waiting_.empty()) idle_.wait(lock);
  }

  [[nodiscard]] const std::string& name() const override { return name_; }

 protected:
  using Waiting = std::deque<std::shared_ptr<BlockOperation>>;
  using Executing = std::list<std::shared_ptr<BlockOperation>>;

  virtual void enqueue(std::shared_ptr<BlockOperation> operation) = 0;

  /// Moves a waiting operation to the executing ones.
  Executing::iterator begin(Waiting::iterator operation) REQUIRES(mutex_) {
    executing_.push_back(std::move(*operation));
    waiting_.erase(operation);
    return std::prev(executing_.end());
  }
  void end(Executing::iterator operation) REQUIRES(mutex_) {
    executing_.erase(operation);
    if (executing_.empty() && waiting_.empty()) idle_.notifyAll();
  }
  void run(BlockOperation& operation) EXCLUDES(mutex_) {
    auto* const outer = std::exchange(runningOperationQueue, this);
    operation.run(failure_);
    runningOperationQueue = outer;
  }

  mutable Mutex mutex_;
  Waiting waiting_ GUARDED_BY(mutex_);
  Executing executing_ GUARDED_BY(mutex_);

 private:
  const std::string name_;
  /// For the log.
  const std::string failure_;
  Condition idle_;
};

class PoolOperationQueue final : public ListedQueue {
 public:
  using ListedQueue::ListedQueue;

  [[nodiscard]] int maxConcurrentOperationCount() const override {
    const MutexLock lock(mutex_);
    return maximum_;
  }

  void setMaxConcurrentOperationCount(int count) override {
    if (count < 1 && count != kDefaultMaxConcurrentOperationCount) {
      throw Exception(NSInvalidArgumentException, "a queue cannot run " + std::to_string(count) + " operations at a time");
    }
    std::size_t wanted = 0;
    {
      const MutexLock lock(mutex_);
      maximum_ = count;
      wanted = claimThreads();
    }
    borrowThreads(wanted);
  }

  [[nodiscard]] bool isSuspended() const override {
    const MutexLock lock(mutex_);
    return suspended_;
  }

  void setSuspended(bool suspended) override {
    std::size_t wanted = 0;
    {
      const MutexLock lock(mutex_);
      suspended_ = suspended;
      wanted = claimThreads();
    }
    borrowThreads(wanted);
  }

 private:
  void enqueue(std::shared_ptr<BlockOperation> operation) override {
    std::size_t wanted = 0;
    {
      const MutexLock lock(mutex_);
      waiting_.push_back(std::move(operation));
      wanted = claimThreads();
    }
    borrowThreads(wanted);
  }

  /// How many threads there is work for beyond those that come anyway; the caller borrows them.
  std::size_t claimThreads() REQUIRES(mutex_) {
    if (suspended_) return 0;
    const auto room = limit() > borrowed_ ? limit() - borrowed_ : 0;
    // A thread that was borrowed and has not begun yet will take one of the waiting ones.
    const auto unclaimed = borrowed_ - executing_.size();
    const auto wanted = std::min(room, waiting_.size() > unclaimed ? waiting_.size() - unclaimed : 0);
    borrowed_ += wanted;
    return wanted;
  }

  void borrowThreads(std::size_t wanted) EXCLUDES(mutex_) {
    for (; wanted > 0; --wanted) {
      runOnPoolThread([self = shared_from_this()] { static_cast<PoolOperationQueue&>(*self).drain(); });
    }
  }

  [[nodiscard]] std::size_t limit() const REQUIRES(mutex_) {
    return static_cast<std::size_t>(maximum_ == kDefaultMaxConcurrentOperationCount ? kLentAtMost : maximum_);
  }

  void drain() EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    while (!waiting_.empty() && !suspended_ && borrowed_ <= limit()) {
      const auto operation = begin(waiting_.begin());
      lock.unlock();
      run(**operation);
      lock.lock();
      end(operation);
    }
    --borrowed_;
  }

  int maximum_ GUARDED_BY(mutex_) = kDefaultMaxConcurrentOperationCount;
  bool suspended_ GUARDED_BY(mutex_) = false;
  /// Threads on their way or at work here; at least as many as there are executing operations.
  std::size_t borrowed_ GUARDED_BY(mutex_) = 0;
};

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

Operation::~Operation() = default;
OperationQueue::~OperationQueue() = default;

std::shared_ptr<Operation> Operation::blockOperationWithBlock(std::function<void()> block) {
  return std::make_shared<BlockOperation>(std::move(block));
}

std::shared_ptr<OperationQueue> OperationQueue::create(std::string name) { return std::make_shared<PoolOperationQueue>(std::move(name)); }

std::shared_ptr<OperationQueue> OperationQueue::mainQueue() {
  static const auto& queue = *new std::shared_ptr<OperationQueue>(std::make_shared<MainOperationQueue>("main"));
  return queue;
}

std::shared_ptr<OperationQueue> OperationQueue::currentQueue() {
  return runningOperationQueue == nullptr ? nullptr : static_cast<ListedQueue*>(runningOperationQueue)->shared_from_this();
}

}  // namespace platform
