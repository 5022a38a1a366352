#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/log/Log.h"

namespace platform {

/// One line on its way to the log.
struct LogLine {
  timespec time{};
  pid_t thread = 0;
  std::string text;
};

/// What stands between those who log and the thread that writes: a bounded list of lines and the count of those that did not fit.
/// Any thread; the reading side is one thread.
class LogQueue {
 public:
  static constexpr std::size_t kMostLines = 4096;
  static constexpr std::size_t kMostBytes = std::size_t{4} << 20U;

  /// What the writer has to do next, in this order.
  struct Batch {
    std::vector<LogLine> lines;
    std::uint64_t dropped = 0;
    /// Set when the destination was named anew since the last batch.
    std::optional<LogDestination> destination;
  };

  /// Never waits for the writer.
  void push(LogLine line) EXCLUDES(mutex_);
  void setDestination(const LogDestination& destination) EXCLUDES(mutex_);

  /// Waits until there is something to do.
  Batch take() EXCLUDES(mutex_);
  /// Tells that the last batch has been written.
  void done() EXCLUDES(mutex_);
  /// Waits until everything pushed or dropped before the call has been written or said; for at most `limit` seconds when it is given.
  void waitUntilWritten(std::optional<int> limit) EXCLUDES(mutex_);

 private:
  Mutex mutex_;
  Condition hasWork_;
  Condition hasWritten_;
  Batch next_ GUARDED_BY(mutex_);
  std::size_t bytes_ GUARDED_BY(mutex_) = 0;
  /// Every push has a number, kept or dropped, and so has every batch the number of its last push.
  std::uint64_t pushed_ GUARDED_BY(mutex_) = 0;
  std::uint64_t taken_ GUARDED_BY(mutex_) = 0;
  std::uint64_t written_ GUARDED_BY(mutex_) = 0;
};

}  // namespace platform
