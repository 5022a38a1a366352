#include "platform/concurrency/queue/OperationQueue.h"

#include <algorithm>
#include <utility>

#include "platform/concurrency/queue/ListedQueue.h"
#include "platform/concurrency/queue/SerialQueue.h"
#include "platform/foundation/base/Exception.h"

namespace platform {

namespace {

constexpr int kLentAtMost = 64;

/// Borrows as many threads of the pool as it has work for and may have.
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

}  // namespace

OperationQueue::~OperationQueue() = default;

std::shared_ptr<OperationQueue> OperationQueue::create(std::string name) { return std::make_shared<PoolOperationQueue>(std::move(name)); }

}  // namespace platform
