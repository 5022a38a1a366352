#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "platform/foundation/base/Mutex.h"

namespace kestrine {

class FileWatcherServiceXPC;

/// The watches of this process, whoever holds them: the one place where all are to be found. A watch enters it before it begins, so that
/// none is left out, and leaves it with its controller's end.
///
/// A watch is ended by `FileWatcherServiceXPC::end` only, which tells first what it has seen. Who replaces one lets the newer one stand
/// before that, so that what changes in between is seen by one of them at least.
///
/// Ownership: one for the process, never destroyed; it keeps no watch alive. Threads: any thread may call anything.
class Watches {
 public:
  using Clock = std::chrono::steady_clock;

  static Watches& ofThisProcess();
  Watches(const Watches&) = delete;
  Watches& operator=(const Watches&) = delete;

  /// Takes up a watch that has not begun. Once all have been ended, it is ended at once and never begins.
  void add(const std::shared_ptr<FileWatcherServiceXPC>& watch) EXCLUDES(mutex_);
  /// Those that exist now, in the order in which they were added.
  [[nodiscard]] std::vector<std::shared_ptr<FileWatcherServiceXPC>> all() EXCLUDES(mutex_);

  /// For the end of the process: what all of them have seen raises the flag, and they end, side by side. Returns when that is done, and at
  /// `limit` at the latest; then the log says what could not be done, and it returns false.
  bool endAll(Clock::time_point limit) EXCLUDES(mutex_);

 private:
  Watches() = default;
  ~Watches() = default;

  platform::Mutex mutex_;
  std::vector<std::weak_ptr<FileWatcherServiceXPC>> watches_ GUARDED_BY(mutex_);
  bool isOver_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrine
