#include "platform/foundation/process/Assertion.h"

#include <fmt/format.h>

#include <utility>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/log/Log.h"

namespace platform {

namespace {

Guarded<AssertionHandler>& handlerInForce() {
  static Guarded<AssertionHandler>& handler = *new Guarded<AssertionHandler>();
  return handler;
}

void logAndThrow(const AssertionFailure& failure) {
  NSLog(fmt::format("*** Assertion failure in {}, {}:{}: {}", failure.function, failure.file, failure.line, failure.description));
  throw Exception(NSInternalInconsistencyException, failure.description);
}

}  // namespace

AssertionHandler setAssertionHandler(AssertionHandler handler) {
  return handlerInForce().with([&](AssertionHandler& inForce) { return std::exchange(inForce, std::move(handler)); });
}

void handleFailure(const AssertionFailure& failure) {
  // A copy, called without the lock: a handler may replace itself or throw.
  if (const AssertionHandler handler = handlerInForce().with([](const AssertionHandler& inForce) { return inForce; })) {
    handler(failure);
  } else {
    logAndThrow(failure);
  }
}

}  // namespace platform
