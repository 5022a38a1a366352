#pragma once

#include <string>
#include <string_view>

namespace platform::fsevents {

/// What the kernel refused, for people: the exact limit with its present value, and what to do about it (empty where nobody knows).
struct Explanation {
  std::string reason;
  std::string remedy;
  [[nodiscard]] std::string text() const { return remedy.empty() ? reason : reason + "; " + remedy; }
};

/// Whether a refusal is for a limit, which may be raised or no longer be reached later.
bool isLimitReached(int error);

/// Of each `source` is "fanotify" or "inotify".

/// A folder could not be marked.
Explanation explainMarkFailure(std::string_view source, int error);
/// No queue could be opened.
Explanation explainQueueFailure(std::string_view source, int error);
/// The kernel's queue was full and changes were dropped.
Explanation explainOverflow(std::string_view source);
/// A folder could not be opened or read.
Explanation explainFolderFailure(int error);

}  // namespace platform::fsevents
