#pragma once

#include <string>

namespace platform::fsevents {

/// The path under which people and callers are told of something, from the one under which it is reported: they differ for the watched
/// path "/" alone, which is reported as the empty text, so that what lies below it can be appended. The result lives as long as its
/// argument. Any thread.
inline const std::string& shownPath(const std::string& reported) {
  static const std::string root = "/";
  return reported.empty() ? root : reported;
}
const std::string& shownPath(std::string&& reported) = delete;

}  // namespace platform::fsevents
