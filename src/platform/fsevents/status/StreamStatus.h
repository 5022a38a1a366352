#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/value/Object.h"
#include "platform/fsevents/status/Losses.h"

namespace platform::fsevents {

/// What a stream tells about itself: counters, what serves which path, and what it cannot tell of. Threads: any thread may call anything.
class StreamStatus {
 public:
  std::atomic<std::int64_t> foldersMarked{0};
  std::atomic<std::uint64_t> eventsDelivered{0};
  std::atomic<std::uint64_t> deliveries{0};

  /// Every loss goes in here.
  [[nodiscard]] Losses& losses() { return losses_; }

  /// The components on the way to watched paths that `owner` looks at from time to time, since the kernel does not watch them.
  void setPolled(const void* owner, std::vector<std::string> paths);
  /// So many folders at and below this path are compared once in an interval, and why. Said in the log when it begins and when it ends.
  void setRegion(const std::string& path, std::size_t folders, std::chrono::milliseconds interval, const std::string& reason);
  void removeRegion(const std::string& path);
  /// What serves a watched path or what is mounted below one: "fanotify", "inotify" or "polling".
  void setSource(const std::string& path, const std::string& name);
  void removeSource(const std::string& path);
  void addSource(const std::string& name);
  /// The names of all that serve, joined by "+", such as "fanotify+inotify"; empty while nothing is watched.
  [[nodiscard]] std::string sources() const;
  void setError(const std::string& text);
  [[nodiscard]] std::string error() const;

  /// Adds its entries to a description.
  void describe(Dictionary& entries) const;

 private:
  struct Region {
    std::size_t folders = 0;
    std::chrono::milliseconds interval{};
    std::string reason;
  };
  Losses losses_;
  mutable Mutex mutex_;
  std::map<const void*, std::vector<std::string>> polled_ GUARDED_BY(mutex_);
  std::map<std::string, Region> regions_ GUARDED_BY(mutex_);
  std::map<std::string, std::string> sourceOf_ GUARDED_BY(mutex_);
  std::set<std::string> sources_ GUARDED_BY(mutex_);
  std::string error_ GUARDED_BY(mutex_);
};

}  // namespace platform::fsevents
