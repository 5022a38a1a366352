#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

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
  void push(LogLine line);
  void setDestination(const LogDestination& destination);

  /// Waits until there is something to do.
  Batch take();
  /// Tells that the last batch has been written.
  void done();
  /// Waits until everything pushed or dropped before the call has been written or said; for at most `limit` seconds when it is given.
  void waitUntilWritten(std::optional<int> limit);

 private:
  std::mutex mutex_;
  std::condition_variable hasWork_;
  std::condition_variable hasWritten_;
  Batch next_;
  std::size_t bytes_ = 0;
  /// Every push has a number, kept or dropped, and so has every batch the number of its last push.
  std::uint64_t pushed_ = 0;
  std::uint64_t taken_ = 0;
  std::uint64_t written_ = 0;
};

}  // namespace platform
