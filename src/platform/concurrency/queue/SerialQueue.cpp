#include "platform/concurrency/queue/SerialQueue.h"

#include <deque>
#include <utility>

#include "platform/concurrency/queue/LabelledQueue.h"
#include "platform/concurrency/queue/ThreadPool.h"
#include "platform/concurrency/thread/ThreadName.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/Mutex.h"

namespace platform {

namespace {

/// A queue that borrows a thread while it has work.
class PoolQueue final : public LabelledQueue, public std::enable_shared_from_this<PoolQueue> {
 public:
  using LabelledQueue::LabelledQueue;

  void async(Block block) override EXCLUDES(mutex_) {
    {
      const MutexLock lock(mutex_);
      blocks_.push_back(std::move(block));
      if (!begins()) return;
    }
    borrowThread();
  }

  void suspend() override EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    ++suspensions_;
  }

  void resume() override EXCLUDES(mutex_) {
    {
      const MutexLock lock(mutex_);
      if (suspensions_ == 0) throw Exception(NSInternalInconsistencyException, "a queue that is not suspended was resumed");
      --suspensions_;
      if (!begins()) return;
    }
    borrowThread();
  }

 private:
  // Whether a thread must be borrowed now; notes that it will be.
  bool begins() REQUIRES(mutex_) {
    if (borrowed_ || suspensions_ > 0 || blocks_.empty()) return false;
    borrowed_ = true;
    return true;
  }

  void borrowThread() EXCLUDES(mutex_) {
    ThreadPool::shared().run([self = shared_from_this()] { self->drain(); });
  }

  void drain() EXCLUDES(mutex_) {
    nameThisThread(label().empty() ? "queue" : label());
    Block block;
    while (next(block)) {
      run(block);
      block = nullptr;
    }
  }

  // False when the thread is to be given back.
  bool next(Block& block) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (suspensions_ > 0 || blocks_.empty()) {
      borrowed_ = false;
      return false;
    }
    block = std::move(blocks_.front());
    blocks_.pop_front();
    return true;
  }

  Mutex mutex_;
  std::deque<Block> blocks_ GUARDED_BY(mutex_);
  int suspensions_ GUARDED_BY(mutex_) = 0;
  bool borrowed_ GUARDED_BY(mutex_) = false;
};

}  // namespace

SerialQueue::~SerialQueue() = default;

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label) { return std::make_shared<PoolQueue>(std::move(label)); }

}  // namespace platform
