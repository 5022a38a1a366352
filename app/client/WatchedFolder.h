#pragma once

#include <optional>
#include <string>

namespace kestrine {

/// What the service makes of a base folder. It reads the text "<base>/Kestrine" as a URL (RFC 3986) and watches that URL's path, so some
/// folders cannot be watched by it, and for some it watches another one than the text seems to say.
struct WatchedFolder {
  /// The text as a path: "<base>/Kestrine".
  std::string typed;
  /// The folder that the service would watch; empty when there is none.
  std::string watched;
  /// Why there is none, and what to do about it; else empty.
  std::string problem;
  /// Where `watched` is another folder than `typed`: that, and why; else empty.
  std::string warning;
};
WatchedFolder watchedFolder(const std::string& base);

/// The base folder in the preferences; nullopt when none is set. What is not text is told as the service reads it: its description.
std::optional<std::string> basePath();
/// Stores it. False, with the reason in the log, when the preferences cannot be written.
bool setBasePath(const std::string& base);

}  // namespace kestrine
