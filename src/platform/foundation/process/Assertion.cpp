#include "platform/foundation/process/Assertion.h"

#include <fmt/format.h>

#include <mutex>
#include <utility>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/log/Log.h"

namespace platform {

namespace {

struct HandlerInForce {
  std::mutex mutex;
  AssertionHandler handler;
};

HandlerInForce& handlerInForce() {
  static HandlerInForce& holder = *new HandlerInForce();
  return holder;
}

void logAndThrow(const AssertionFailure& failure) {
  NSLog(fmt::format("*** Assertion failure in {}, {}:{}: {}", failure.function, failure.file, failure.line, failure.description));
  throw Exception(NSInternalInconsistencyException, failure.description);
}

}  // namespace

AssertionHandler setAssertionHandler(AssertionHandler handler) {
  HandlerInForce& holder = handlerInForce();
  const std::lock_guard lock(holder.mutex);
  return std::exchange(holder.handler, std::move(handler));
}

void handleFailure(const AssertionFailure& failure) {
  HandlerInForce& holder = handlerInForce();
  AssertionHandler handler;
  {
    const std::lock_guard lock(holder.mutex);
    handler = holder.handler;
  }
  // Called without the lock: a handler may replace itself or throw.
  if (handler) {
    handler(failure);
  } else {
    logAndThrow(failure);
  }
}

}  // namespace platform
