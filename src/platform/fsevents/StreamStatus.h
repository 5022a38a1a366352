#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/foundation/value/Object.h"

namespace platform::fsevents {

/// What a stream tells about itself: counters and every loss with its reason. A loss is a state that people can ask for, not only a line in
/// the log. Threads: any thread may call anything.
class StreamStatus {
 public:
  std::atomic<std::int64_t> foldersMarked{0};
  std::atomic<std::uint64_t> eventsDelivered{0};
  std::atomic<std::uint64_t> deliveries{0};

  /// Counts a loss; the first of its reason is said in the log too.
  void addLoss(const std::string& reason, const std::string& path);
  /// A folder that could not be read; said in the log for the first few.
  void addUnreadable(const std::string& path);
  /// The folder can be read again, or is no longer there: it and what is below it are taken from the list.
  void removeUnreadable(const std::string& path);
  /// The folder has moved, with everything below it.
  void moveUnreadable(const std::string& from, const std::string& to);
  [[nodiscard]] bool hasUnreadable() const { return unreadableCount_ != 0; }
  void setPolled(std::vector<std::string> paths);
  void addSource(const std::string& name);
  /// "fanotify", "inotify", both joined by "+", or empty.
  [[nodiscard]] std::string sources() const;
  void setError(const std::string& text);
  [[nodiscard]] std::string error() const;

  /// Adds its entries to a description.
  void describe(Dictionary& entries) const;

 private:
  struct Loss {
    std::string reason;
    std::string path;
    std::uint64_t count = 0;
  };
  mutable std::mutex mutex_;
  std::vector<Loss> losses_;
  std::set<std::string> unreadable_;
  std::atomic<std::size_t> unreadableCount_{0};
  std::vector<std::string> polled_;
  std::set<std::string> sources_;
  std::string error_;
};

}  // namespace platform::fsevents
