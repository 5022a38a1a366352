#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/fsevents/event/FSEventStreamTypes.h"
#include "platform/fsevents/mounts/FileSystems.h"

namespace platform::fsevents {

/// What others may know of a tree's thread while it is at work, and ask of it. Threads: any thread may read and write.
struct TreePulse {
  /// A walk under way ends at its next folder.
  std::atomic<bool> stop{false};
  /// Nobody waits for the thread any longer: another may be at work in its place, whose losses are not this one's to end.
  std::atomic<bool> leftBehind{false};
  /// Grows with every folder that is looked at: who stands still although it is at work, hangs.
  std::atomic<std::uint64_t> steps{0};
};

/// What a watched tree is told once and for all.
struct TreeOptions {
  /// The path as the caller gave it, without trailing separators: what reported paths begin with. "/" is the empty text.
  std::string reportedPath;
  /// The absolute path to open.
  std::string openPath;
  /// Paths to leave out, relative to the tree ("/a/b"; "" leaves out everything), whole components.
  std::vector<std::string> exclusions;
  bool fileEvents = false;
  bool ignoreSelf = false;
  FSEventStreamSource source = FSEventStreamSource::Automatic;
  /// Of the file system that the path lies on.
  FileSystemPolicy policy = policyOf(nullptr);
  std::shared_ptr<TreePulse> pulse = std::make_shared<TreePulse>();
};

}  // namespace platform::fsevents
