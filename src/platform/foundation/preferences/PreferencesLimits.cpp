#include "platform/foundation/preferences/PreferencesLimits.h"

#include <atomic>

namespace platform {

namespace {

/// Without a lock, which a child could inherit from a thread that it has not.
using Milliseconds = std::atomic<std::chrono::milliseconds::rep>;
constexpr PreferencesLimits kUsual;
constinit Milliseconds lockInForce = kUsual.lock.count();
constinit Milliseconds lockSaidInForce = kUsual.lockSaid.count();
constinit Milliseconds settledInForce = kUsual.settled.count();
constinit Milliseconds readAgainInForce = kUsual.readAgain.count();

}  // namespace

PreferencesLimits preferencesLimits() {
  using std::chrono::milliseconds;
  return {milliseconds(lockInForce), milliseconds(lockSaidInForce), milliseconds(settledInForce), milliseconds(readAgainInForce)};
}

void setPreferencesLimits(const PreferencesLimits& limits) {
  lockInForce = limits.lock.count();
  lockSaidInForce = limits.lockSaid.count();
  settledInForce = limits.settled.count();
  readAgainInForce = limits.readAgain.count();
}

}  // namespace platform
