#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "contract/WatchState.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/process/StatusRegistry.h"
#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine {

/// What the status registry tells about one controller.
/// Threads: any; the registry asks on a thread of its own choosing.
class FileWatcherServiceXPC::Status {
 public:
  Status();

  void watches(std::string folder);
  void stands();
  void failed(std::string reason);
  /// The registry tells of it no longer.
  void ends();

  [[nodiscard]] std::uint64_t number() const { return number_; }
  /// The folder of a watch that stands.
  [[nodiscard]] std::optional<std::string> standingFolder() const;

 private:
  [[nodiscard]] platform::Object describe() const;

  const std::uint64_t number_;
  mutable platform::Mutex mutex_;
  std::string folder_ GUARDED_BY(mutex_);
  WatchState state_ GUARDED_BY(mutex_) = WatchState::Starting;
  std::string reason_ GUARDED_BY(mutex_);
  // Last, so that the registry has forgotten the entry before its parts go.
  platform::Guarded<platform::StatusRegistry::Registration> registration_;
};

}  // namespace kestrine
