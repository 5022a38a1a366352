#pragma once

namespace kestrine {

/// The service's name on the local channel; also the preferences domain in which it raises the flag.
inline constexpr const char* kServiceName = "Ostrabyte.FileWatcherXpcService";
/// The flag: the string "1" when something changed. Only the application resets it.
inline constexpr const char* kFlagKey = "FileWatcherStatusKey";

/// The application's own preferences domain, which the service reads.
inline constexpr const char* kApplicationDomain = "Ostrabyte.Kestrine";
/// The base folder: an absolute path. The service watches the folder "Kestrine" in it.
inline constexpr const char* kBasePathKey = "kestrinePathKey";

}  // namespace kestrine
