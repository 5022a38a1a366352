#include "platform/network/session/Delivery.h"

#include <utility>

#include "platform/foundation/log/Contained.h"

namespace platform::network {

/// What the executor is given. Destroyed unrun it gives up the waiting blocks, which hold who delivers here, and would do so for ever.
class Delivery::Turn {
 public:
  explicit Turn(std::shared_ptr<Delivery> delivery) : delivery_(std::move(delivery)) {}
  ~Turn() {
    if (delivery_) delivery_->dropWaiting();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  void run() { std::exchange(delivery_, nullptr)->runNext(); }

 private:
  std::shared_ptr<Delivery> delivery_;
};

void Delivery::post(std::function<void()> block) {
  {
    const MutexLock lock(mutex_);
    blocks_.push_back(std::move(block));
    if (std::exchange(lent_, true)) return;
  }
  lend();
}

void Delivery::lend() {
  executor_([turn = std::make_shared<Turn>(shared_from_this())] { turn->run(); });
}

void Delivery::runNext() {
  std::function<void()> block;
  {
    const MutexLock lock(mutex_);
    block = std::move(blocks_.front());
    blocks_.pop_front();
  }
  runContained("an exception left a handler of a URL task", block);
  block = nullptr;
  {
    const MutexLock lock(mutex_);
    lent_ = !blocks_.empty();
    if (!lent_) return;
  }
  lend();
}

void Delivery::dropWaiting() {
  std::deque<std::function<void()>> dropped;
  const MutexLock lock(mutex_);
  dropped.swap(blocks_);
  lent_ = false;
}

}  // namespace platform::network
