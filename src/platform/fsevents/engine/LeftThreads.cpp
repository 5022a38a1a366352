#include "platform/fsevents/engine/LeftThreads.h"

#include <utility>
#include <vector>

#include "platform/foundation/base/Mutex.h"

namespace platform::fsevents {
namespace {

struct LeftThread {
  std::thread thread;
  std::function<bool()> hasEnded;
};

/// Never destroyed: at the process's end a thread may still hang, and joining it would too.
Guarded<std::vector<LeftThread>>& leftThreads() {
  static auto& threads = *new Guarded<std::vector<LeftThread>>;
  return threads;
}

}  // namespace

void LeftThreads::leave(std::thread thread, std::function<bool()> hasEnded) {
  collect();
  leftThreads().with([&](std::vector<LeftThread>& threads) { threads.push_back({std::move(thread), std::move(hasEnded)}); });
}

void LeftThreads::collect() {
  std::vector<LeftThread> ended;
  leftThreads().with([&](std::vector<LeftThread>& threads) {
    std::vector<LeftThread> hanging;
    for (LeftThread& left : threads) (left.hasEnded() ? ended : hanging).push_back(std::move(left));
    threads.swap(hanging);
  });
  for (LeftThread& left : ended) left.thread.join();
}

}  // namespace platform::fsevents
