#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "platform/foundation/base/Mutex.h"

namespace kestrine {

class FileWatcherServiceXPC;
class WatchClient;

/// The watches of this process, whoever holds them: the one place where all are to be found. A watch enters it before it begins, so that
/// none is left out, and leaves it with its controller's end.
///
/// A watch is ended by `FileWatcherServiceXPC::end` only, which tells first what it has seen. Who replaces one lets the newer one stand
/// before that, so that what changes in between is seen by one of them at least.
///
/// A watch outlives whoever asked for it, but is not needed any more once another one of the same folder stands that is newer or whose own
/// client is still there: then it ends. So a folder has one watch for each client that is there, and never none because all have gone.
///
/// Ownership: one for the process, never destroyed; it keeps no watch alive. Threads: any thread may call anything.
class Watches {
 public:
  using Clock = std::chrono::steady_clock;

  static Watches& ofThisProcess();
  Watches(const Watches&) = delete;
  Watches& operator=(const Watches&) = delete;

  /// Takes up a watch that has not begun. Once all have been ended, it is ended at once and never begins.
  /// Without a client it is needed for ever.
  void add(const std::shared_ptr<FileWatcherServiceXPC>& watch, std::shared_ptr<const WatchClient> client = nullptr) EXCLUDES(mutex_);
  /// Begins the end of the watches that are not needed any more; does not wait. For when a watch stands or a client has gone.
  void endSpare() EXCLUDES(mutex_);
  /// Those that exist now, in the order in which they were added.
  [[nodiscard]] std::vector<std::shared_ptr<FileWatcherServiceXPC>> all() EXCLUDES(mutex_);

  /// For the end of the process: what all of them have seen raises the flag, and they end, side by side. Returns when that is done, and at
  /// `limit` at the latest; then the log says what could not be done, and it returns false.
  bool endAll(Clock::time_point limit) EXCLUDES(mutex_);

 private:
  Watches() = default;
  ~Watches() = default;

  struct Entry {
    std::weak_ptr<FileWatcherServiceXPC> watch;
    std::shared_ptr<const WatchClient> client;
    /// Its end is decided upon, so that nobody else's end relies on it.
    bool isSpare = false;
  };

  platform::Mutex mutex_;
  std::vector<Entry> watches_ GUARDED_BY(mutex_);
  bool isOver_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrine
