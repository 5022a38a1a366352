#pragma once

namespace kestrine {

// Where and how the service's status tells of a flag that it cannot raise.

/// The section that has a dictionary, with the keys below, while the flag is to be raised and cannot be written. The service goes on
/// trying.
inline constexpr const char* kOwedFlagSection = "owedFlag";
/// The date from which on it could not be written.
inline constexpr const char* kOwedFlagSinceKey = "since";
/// Why the last attempt failed.
inline constexpr const char* kOwedFlagReasonKey = "reason";

}  // namespace kestrine
