#pragma once

namespace kestrine {

/// The service's name on the local channel; also the identifier of its process, and so the preferences domain that is its own.
inline constexpr const char* kServiceName = "Ostrabyte.FileWatcherXpcService";

}  // namespace kestrine
