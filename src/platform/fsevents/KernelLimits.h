#pragma once

#include <string>
#include <string_view>

namespace platform::fsevents {

/// Texts for people about what the kernel refused: the exact limit, its current value and the remedy. `source` is "fanotify" or "inotify".

/// Whether a refusal is for a limit, which may be raised or no longer be reached later.
bool isLimitReached(int error);

/// A folder could not be marked.
std::string explainMarkFailure(std::string_view source, int error);
/// No queue could be opened.
std::string explainQueueFailure(std::string_view source, int error);
/// The kernel's queue was full and changes were dropped.
std::string explainOverflow(std::string_view source);

}  // namespace platform::fsevents
