#pragma once

#include <deque>
#include <functional>
#include <memory>

#include "platform/foundation/base/Mutex.h"

namespace platform::network {

/// Runs a block on some other thread or loop, later.
using Executor = std::function<void(std::function<void()>)>;

/// Hands blocks to an executor one after another, so that what one task tells stays in order on a queue that runs several blocks at once.
/// An exception that leaves a block is logged and ends there. Lives until its last block ran. When the executor lets go of what it was
/// given without running it, as a queue does with a cancelled operation, all blocks that wait are destroyed unrun. Any thread.
class Delivery : public std::enable_shared_from_this<Delivery> {
 public:
  explicit Delivery(Executor executor) : executor_(std::move(executor)) {}
  void post(std::function<void()> block) EXCLUDES(mutex_);

 private:
  class Turn;
  void lend();
  void runNext() EXCLUDES(mutex_);
  void dropWaiting() EXCLUDES(mutex_);

  const Executor executor_;
  Mutex mutex_;
  std::deque<std::function<void()>> blocks_ GUARDED_BY(mutex_);
  /// The executor has a turn of ours.
  bool lent_ GUARDED_BY(mutex_) = false;
};

}  // namespace platform::network
