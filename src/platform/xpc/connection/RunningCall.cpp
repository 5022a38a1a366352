#include "platform/xpc/connection/RunningCall.h"

#include <unordered_map>

#include "platform/foundation/base/Mutex.h"

namespace platform::xpc {

namespace {

struct Running {
  int all = 0;
  std::unordered_map<pid_t, int> ofClients;
};

Guarded<Running>& running() {
  static auto& calls = *new Guarded<Running>;
  return calls;
}

void end(pid_t client) {
  running().with([client](Running& now) {
    --now.all;
    if (--now.ofClients[client] == 0) now.ofClients.erase(client);
  });
}

}  // namespace

std::shared_ptr<void> RunningCall::begin(pid_t client) {
  const bool isTaken = running().with([client](Running& now) {
    int& own = now.ofClients[client];
    const int most = own < kAlways ? 2 * kMaximum : kMaximum;
    if (own >= kMaximumOfOne || now.all >= most) {
      if (own == 0) now.ofClients.erase(client);
      return false;
    }
    ++own;
    ++now.all;
    return true;
  });
  if (!isTaken) return nullptr;
  static char place;
  return {&place, [client](void*) { end(client); }};
}

}  // namespace platform::xpc
