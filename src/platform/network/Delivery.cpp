#include "platform/network/Delivery.h"

#include <exception>
#include <string>
#include <utility>

#include "platform/foundation/Exception.h"
#include "platform/foundation/Log.h"

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

void Delivery::post(std::function<void()> block) {
  {
    const std::lock_guard lock(mutex_);
    blocks_.push_back(std::move(block));
    if (std::exchange(lent_, true)) return;
  }
  lend();
}

void Delivery::lend() {
  executor_([self = shared_from_this()] { self->runNext(); });
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

}  // namespace platform::network
