#include "watcher/Watches.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "platform/foundation/log/Log.h"
#include "watcher/FileWatcherServiceXPC.h"
#include "watcher/FlagRaiser.h"
#include "watcher/WatchClient.h"

namespace kestrine {

Watches& Watches::ofThisProcess() {
  static auto& one = *new Watches;
  return one;
}

void WatchClient::leave(const std::shared_ptr<WatchClient>& client) {
  client->isGone_ = true;
  Watches::ofThisProcess().endSpare();
}

void Watches::add(const std::shared_ptr<FileWatcherServiceXPC>& watch, std::shared_ptr<const WatchClient> client) {
  {
    const platform::MutexLock lock(mutex_);
    std::erase_if(watches_, [](const Entry& each) { return each.watch.expired(); });
    watches_.push_back({.watch = watch, .client = std::move(client)});
    if (!isOver_) return;
  }
  static_cast<void>(watch->end(Clock::now()));
}

std::vector<std::shared_ptr<FileWatcherServiceXPC>> Watches::all() {
  std::vector<std::shared_ptr<FileWatcherServiceXPC>> alive;
  const platform::MutexLock lock(mutex_);
  for (const Entry& each : watches_) {
    if (auto watch = each.watch.lock()) alive.push_back(std::move(watch));
  }
  return alive;
}

// In one pass: of the watches of a folder that nobody waits for, the newest is kept, unless somebody waits for another one. Those who are
// still there are looked at once, so that nobody's going in between makes two decisions rely on each other.
void Watches::endSpare() {
  struct Standing {
    std::shared_ptr<FileWatcherServiceXPC> watch;
    Entry* entry = nullptr;
    bool isGone = false;
  };
  std::vector<std::shared_ptr<FileWatcherServiceXPC>> spare;
  {
    const platform::MutexLock lock(mutex_);
    std::map<std::string, std::vector<Standing>> byFolder;
    for (Entry& each : watches_) {
      const auto watch = each.isSpare ? nullptr : each.watch.lock();
      const auto folder = watch ? watch->standingFolder() : std::nullopt;
      if (folder) byFolder[*folder].push_back({watch, &each, each.client && each.client->isGone()});
    }
    for (auto& [folder, standing] : byFolder) {
      const auto newest = std::ranges::max_element(standing, {}, [](const Standing& each) { return each.watch->number(); });
      const bool isWaitedFor = std::ranges::any_of(standing, [](const Standing& each) { return !each.isGone; });
      const std::uint64_t kept = isWaitedFor ? 0 : newest->watch->number();
      for (Standing& each : standing) {
        if (!each.isGone || each.watch->number() == kept) continue;
        each.entry->isSpare = true;
        spare.push_back(std::move(each.watch));
      }
    }
  }
  for (const auto& watch : spare) watch->beginEnd();
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
