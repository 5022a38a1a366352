#pragma once

namespace kestrine {

// Where and how the service's status tells of its watches.

/// The section that has a dictionary for each watch, with the keys below.
inline constexpr const char* kWatchesSection = "watches";
/// Which of the process's watches it is, from 1.
inline constexpr const char* kWatchNumberKey = "number";
inline constexpr const char* kWatchFolderKey = "folder";
/// See WatchState.h.
inline constexpr const char* kWatchStateKey = "state";
/// Why it failed; not there when it did not.
inline constexpr const char* kWatchReasonKey = "reason";

}  // namespace kestrine
