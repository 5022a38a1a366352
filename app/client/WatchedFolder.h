#pragma once

#include <optional>
#include <string>

namespace kestrine {

// The base folder of the preferences. What is stored is the text of a URL (RFC 3986), to which the service adds "/Kestrine" and whose path
// it watches. So a path is not stored as it stands: what a URL cannot hold in its path is written as percent escapes. Any thread.

/// What a stored text names.
struct WatchedFolder {
  /// The base folder, as a path; empty when there is none.
  std::string base;
  /// The folder "Kestrine" in it; empty when there is none.
  std::string watched;
  /// Why the text names no folder of this machine, and what to do about it; else empty. (The service may watch something for it all the
  /// same, such as all that is above a '?'.)
  std::string problem;
};
WatchedFolder watchedFolder(const std::string& text);

/// The text to store for the folder at the absolute path `path`, whatever bytes its name is made of.
std::string baseTextOfPath(const std::string& path);

/// Why the folder at `path` cannot be a base folder, now or later: it is no absolute path, something else has its name or that of the
/// folder in it, or nothing can be called so. Empty when it is one or may become one, such as a drive that is not connected.
std::string whyNeverABaseFolder(const std::string& path);

/// The text that is stored; nullopt when none is. What is not text is told as the service reads it: its description.
std::optional<std::string> baseText();
/// Stores the text of the path. False, with the reason in the log, when it cannot be a base folder or the preferences cannot be written.
bool setBasePath(const std::string& path);

}  // namespace kestrine
