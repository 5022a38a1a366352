#pragma once

#include <string>
#include <vector>

namespace platform::fsevents {

// For who follows a path step by step, links included, as the kernel does (path_resolution(7)). Any thread.

/// So many links are followed before the kernel gives up.
inline constexpr int kMaximumLinks = 40;

/// Puts the components of `text` on top of those that are left, in reverse, so that the next one to take is at the end.
void pushComponents(const std::string& text, std::vector<std::string>& left);

/// What the symbolic link at `path` says; empty where there is none, or none that can be read.
std::string linkAt(const std::string& path);

}  // namespace platform::fsevents
