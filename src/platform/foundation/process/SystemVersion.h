#pragma once

#include <string_view>

namespace platform {

/// The version of the operating system that the product believes itself on.
struct OperatingSystemVersion {
  int major = 0;
  int minor = 0;
  int patch = 0;
  friend auto operator<=>(const OperatingSystemVersion&, const OperatingSystemVersion&) = default;
};

/// A current release (14.0.0) by default; the environment variable KESTRINE_SYSTEM_VERSION ("10.7.5") selects another. A text that is no
/// version is said in the log once and the default is used. Read anew at each call. Any thread.
OperatingSystemVersion systemVersion();

/// The AppKit version number of `version`: 1038 for 10.6, 1138 for 10.7, 1187 for 10.8, 1265 for 10.9, 1343 for 10.10, growing from there;
/// patch levels appear as fractions or small steps that never reach the next release's number.
double appKitVersionNumber(const OperatingSystemVersion& version);

}  // namespace platform
