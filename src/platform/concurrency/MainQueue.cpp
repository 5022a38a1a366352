#include <utility>

#include "platform/concurrency/LabelledQueue.h"
#include "platform/concurrency/ThreadLoops.h"

namespace platform {

namespace {

/// Its blocks are blocks of the main thread's run loop.
class MainQueue final : public LabelledQueue {
 public:
  MainQueue() : LabelledQueue("main") {}
  void async(std::function<void()> block) override {
    mainEventLoop()->performKept([this, block = std::move(block)] { run(block); });
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
