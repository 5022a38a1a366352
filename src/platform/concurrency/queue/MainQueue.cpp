#include <utility>

#include "platform/concurrency/loop/ThreadLoops.h"
#include "platform/concurrency/queue/LabelledQueue.h"

namespace platform {

namespace {

/// Its blocks are blocks of the main thread's run loop.
class MainQueue final : public LabelledQueue {
 public:
  MainQueue() : LabelledQueue("main") {}
  void async(Block block) override {
    mainEventLoop()->performKept([this, block = std::move(block)]() mutable { run(block); });
  }
  void suspend() override {}
  void resume() override {}
};

}  // namespace

std::shared_ptr<SerialQueue> mainQueue() {
  static const auto& queue = *new std::shared_ptr<SerialQueue>(std::make_shared<MainQueue>());
  return queue;
}

}  // namespace platform
