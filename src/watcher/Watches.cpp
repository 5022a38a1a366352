#include "watcher/Watches.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/foundation/log/Log.h"
#include "watcher/FileWatcherServiceXPC.h"
#include "watcher/FlagRaiser.h"

namespace kestrine {

Watches& Watches::ofThisProcess() {
  static auto& one = *new Watches;
  return one;
}

void Watches::add(const std::shared_ptr<FileWatcherServiceXPC>& watch) {
  {
    const platform::MutexLock lock(mutex_);
    std::erase_if(watches_, [](const auto& each) { return each.expired(); });
    watches_.push_back(watch);
    if (!isOver_) return;
  }
  static_cast<void>(watch->end(Clock::now()));
}

std::vector<std::shared_ptr<FileWatcherServiceXPC>> Watches::all() {
  std::vector<std::shared_ptr<FileWatcherServiceXPC>> alive;
  const platform::MutexLock lock(mutex_);
  for (const auto& each : watches_) {
    if (auto watch = each.lock()) alive.push_back(std::move(watch));
  }
  return alive;
}

bool Watches::endAll(Clock::time_point limit) {
  {
    const platform::MutexLock lock(mutex_);
    isOver_ = true;
  }
  const auto watches = all();
  for (const auto& watch : watches) watch->beginEnd();
  const auto untold = std::ranges::count_if(watches, [limit](const auto& watch) { return !watch->end(limit); });
  if (untold > 0) {
    platform::NSLog(
        fmt::format("{} watches could not tell before the end what they have seen; there may be changes without a flag", untold));
  }
  return FlagRaiser::shared().finish(limit) && untold == 0;
}

}  // namespace kestrine
