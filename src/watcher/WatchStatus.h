#pragma once

#include <cstdint>
#include <mutex>
#include <string>

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

 private:
  [[nodiscard]] platform::Object describe() const;

  const std::uint64_t number_;
  mutable std::mutex mutex_;
  std::string folder_;
  std::string state_ = "starting";
  std::string reason_;
  // Last, so that the registry has forgotten the entry before its parts go.
  platform::StatusRegistry::Registration registration_;
};

}  // namespace kestrine
