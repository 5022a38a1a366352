#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kestrine {

/// How a request to watch ended.
struct WatchStart {
  enum class Outcome {
    /// A new watch stands.
    Watching,
    /// A watch of this folder stood already; none was asked for.
    AlreadyWatching,
    /// No base folder is set, or the service cannot watch the one that is. Nothing was asked.
    UnusableBase,
    /// The service was asked, and says that the watch could not start.
    NotWatching,
    /// The service is not installed, does not start, or ended while it was asked.
    NoService,
    /// The service did not say in time whether the watch stands. It may still come to stand.
    TimedOut,
  };
  Outcome outcome = Outcome::TimedOut;
  /// The watched folder; empty with UnusableBase.
  std::string folder;
  /// What happened and, where something went wrong, what to do about it.
  std::string text;
  /// The service; 0 when it was not reached.
  pid_t process = 0;
  /// What a user should know in any case, such as that another folder is watched than the one typed.
  std::vector<std::string> warnings;

  [[nodiscard]] bool stands() const { return outcome == Outcome::Watching || outcome == Outcome::AlreadyWatching; }
};

}  // namespace kestrine
