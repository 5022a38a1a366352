#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "platform/fsevents/event/FSEventStreamTypes.h"

namespace platform::fsevents {

/// What a stream was created with.
struct EngineConfiguration {
  std::vector<std::string> paths;
  std::vector<std::string> exclusions;
  FSEventStreamEventId sinceWhen = kFSEventStreamEventIdSinceNow;
  std::chrono::nanoseconds latency{0};
  FSEventStreamCreateFlags flags = 0;
  FSEventStreamSource source = FSEventStreamSource::Automatic;

  [[nodiscard]] bool has(FSEventStreamCreateFlags flag) const { return (flags & flag) != 0; }
  [[nodiscard]] bool asksForHistory() const { return sinceWhen != kFSEventStreamEventIdSinceNow; }
};

}  // namespace platform::fsevents
