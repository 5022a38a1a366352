#include "platform/xpc/service/Termination.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <utility>

#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/log/Contained.h"
#include "platform/foundation/log/Log.h"
#include "platform/xpc/channel/IOThread.h"
#include "platform/xpc/launch/LaunchRecord.h"
#include "platform/xpc/launch/ServiceLocks.h"

namespace platform::xpc {

namespace {

constexpr std::chrono::seconds kLaunchLockLimit{1};
/// How long handlers may take over the news that the process is about to end.
constexpr double kHandlerSeconds = 2;
/// The same for the end handler, so that there is a moment left for what it says.
constexpr std::chrono::milliseconds kEndHandlerLimit{1800};

/// Whoever starts the service next takes it away.
void sayThatTheSocketStays(const std::string& why) { NSLog("xpc: the service leaves its socket behind: " + why); }

[[noreturn]] void endProcess() {
  NSLog("xpc: the service ends");
  flushLogAtEnd();
  // Not exit: other threads are at work and must not meet destroyed objects.
  _exit(EXIT_SUCCESS);
}

}  // namespace

Termination::Termination(const ServiceFolder& folder, std::string name, std::shared_ptr<Listener> listener, EndHandler endHandler)
    : folder_(folder), name_(std::move(name)), listener_(std::move(listener)), endHandler_(std::move(endHandler)) {}

void Termination::begin() {
  if (std::exchange(begun_, true)) return;
  NSLog("xpc: the service was told to end");
  everybody_ = std::shared_ptr<void>(nullptr, [](void*) { endProcess(); });
  callEndHandler();
  auto lock = openLaunchLock(folder_, name_);
  if (!lock) {
    sayThatTheSocketStays(lock.error().reason);
    return tellPeers();
  }
  launchLock_.emplace(std::move(*lock), kLaunchLockLimit, [this](int error) {
    if (error == 0) {
      removeServiceSocket(folder_, launchLock_->file(), name_);
    } else {
      sayThatTheSocketStays(error == LockFile::kHeldBySomebodyElse ? "somebody else holds the launch lock" : errnoText(error));
    }
    tellPeers();
  });
  launchLock_->begin(ioLoop());
}

/// The I/O thread must not wait, and the main one has a loop that is always run.
void Termination::callEndHandler() {
  if (!endHandler_) return;
  const auto limit = std::chrono::steady_clock::now() + kEndHandlerLimit;
  RunLoop::main()->perform([this, limit, everybody = everybody_]() mutable {
    runContained("xpc: an exception left the end handler", [&] { endHandler_(limit); });
    everybody.reset();
  });
}

void Termination::tellPeers() {
  // Held until the timer stands: the handlers may return at once.
  const auto everybody = std::exchange(everybody_, nullptr);
  limit_ = RunLoopTimer::create(kHandlerSeconds, 0, [] {
    NSLog("xpc: the service does not wait any longer for what is done before its end");
    endProcess();
  });
  ioLoop().add(limit_);
  listener_->terminate("the service was told to end", [everybody] {});
}

}  // namespace platform::xpc
