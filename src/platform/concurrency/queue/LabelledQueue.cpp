#include "platform/concurrency/queue/LabelledQueue.h"

#include <utility>

#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/log/Contained.h"

namespace platform {

namespace {

/// The queue whose block the calling thread is running.
thread_local const SerialQueue* runningSerialQueue = nullptr;

/// What the caller of `sync` waits for.
class Ending {
 public:
  void tell() {
    // Notified under the lock: after it the waiter takes all this off its stack.
    const MutexLock lock(mutex_);
    ended_ = true;
    told_.notifyOne();
  }
  void wait() {
    MutexLock lock(mutex_);
    while (!ended_) told_.wait(lock);
  }

 private:
  Mutex mutex_;
  Condition told_;
  bool ended_ GUARDED_BY(mutex_) = false;
};

}  // namespace

LabelledQueue::LabelledQueue(std::string label)
    : label_(std::move(label)),
      failure_("an exception left a block" + (label_.empty() ? std::string() : " of the queue \"" + label_ + "\"")) {}

bool LabelledQueue::isCurrent() const { return runningSerialQueue == this; }

void LabelledQueue::run(Block& block) const {
  const auto* outer = std::exchange(runningSerialQueue, this);
  runContained([&block] { block(); });
  runningSerialQueue = outer;
}

void LabelledQueue::sync(const std::function<void()>& block) {
  Ending ending;
  async([this, &block, &ending] {
    runContained(block);
    ending.tell();
  });
  ending.wait();
}

void LabelledQueue::runContained(const std::function<void()>& block) const {
  if (block) platform::runContained(failure_, block);
}

}  // namespace platform
