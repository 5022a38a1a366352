#pragma once

namespace kestrine {

// What the application writes and the service reads.

/// The application's own domain.
inline constexpr const char* kApplicationDomain = "Ostrabyte.Kestrine";
/// The base folder: an absolute path. See SyncFolder.h.
inline constexpr const char* kBasePathKey = "kestrinePathKey";
/// Who tells the product's server that a watch could not start.
inline constexpr const char* kComputerIdKey = "computerIdKey";
inline constexpr const char* kUserIdKey = "userIdKey";

// What the service writes, and the application reads and resets.

/// The flag, in the domain that bears the service's name.
inline constexpr const char* kFlagKey = "FileWatcherStatusKey";
/// Its value since something changed. The service never writes another.
inline constexpr const char* kFlagRaised = "1";
/// The value that the application gives it when it takes it.
inline constexpr const char* kFlagReset = "0";

}  // namespace kestrine
