#include "platform/xpc/service/Termination.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <utility>

#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/log/Log.h"
#include "platform/xpc/channel/IOThread.h"
#include "platform/xpc/launch/LaunchRecord.h"
#include "platform/xpc/launch/ServiceLocks.h"

namespace platform::xpc {

namespace {

constexpr std::chrono::seconds kLaunchLockLimit{1};
/// How long handlers may take over the news that the process is about to end.
constexpr double kHandlerSeconds = 2;

/// Whoever starts the service next takes it away.
void sayThatTheSocketStays(const std::string& why) { NSLog("xpc: the service leaves its socket behind: " + why); }

[[noreturn]] void endProcess() {
  NSLog("xpc: the service ends");
  flushLogAtEnd();
  // Not exit: other threads are at work and must not meet destroyed objects.
  _exit(EXIT_SUCCESS);
}

}  // namespace

Termination::Termination(const ServiceFolder& folder, std::string name, std::shared_ptr<Listener> listener)
    : folder_(folder), name_(std::move(name)), listener_(std::move(listener)) {}

void Termination::begin() {
  if (std::exchange(begun_, true)) return;
  NSLog("xpc: the service was told to end");
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

void Termination::tellPeers() {
  listener_->terminate("the service was told to end", [] { endProcess(); });
  limit_ = RunLoopTimer::create(kHandlerSeconds, 0, [] { endProcess(); });
  ioLoop().add(limit_);
}

}  // namespace platform::xpc
