#include "platform/network/session/Delivery.h"

#include <exception>
#include <string>
#include <utility>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/log/Log.h"

namespace platform::network {

namespace {

void runLogged(const std::function<void()>& block) {
  const auto say = [](const std::string& what) { NSLog("an exception left a handler of a URL task: " + what); };
  try {
    block();
  } catch (const Exception& exception) {
    say(exception.name() + ": " + exception.reason());
  } catch (const std::exception& exception) {
    say(exception.what());
  } catch (...) {
    say("of an unknown type");
  }
}

}  // namespace

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
    const std::lock_guard lock(mutex_);
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
    const std::lock_guard lock(mutex_);
    block = std::move(blocks_.front());
    blocks_.pop_front();
  }
  runLogged(block);
  block = nullptr;
  {
    const std::lock_guard lock(mutex_);
    lent_ = !blocks_.empty();
    if (!lent_) return;
  }
  lend();
}

void Delivery::dropWaiting() {
  std::deque<std::function<void()>> dropped;
  const std::lock_guard lock(mutex_);
  dropped.swap(blocks_);
  lent_ = false;
}

}  // namespace platform::network
