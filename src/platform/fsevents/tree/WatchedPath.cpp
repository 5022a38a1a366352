#include "platform/fsevents/tree/WatchedPath.h"

#include "platform/foundation/files/Paths.h"
#include "platform/fsevents/mounts/PathMounts.h"

namespace platform::fsevents {
namespace {

void dropTrailingSeparators(std::string& path) {
  while (!path.empty() && path.back() == '/') path.pop_back();
}

/// As text: without repeated separators, "." and trailing separators; "" for the root.
std::string plain(const std::string& path) {
  std::string text;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (end > at && path.compare(at, end - at, ".") != 0) text.append("/").append(path, at, end - at);
    at = end + 1;
  }
  return text;
}

void addExclusion(const std::string& root, const std::string& excluded, std::vector<std::string>& list) {
  if (isAtOrBelowPath(root, excluded)) {
    list.emplace_back();
  } else if (isBelowPath(excluded, root)) {
    list.push_back(excluded.substr(root.size()));
  }
}

}  // namespace

TreeOptions watchedPath(const std::string& given, const std::vector<std::string>& excluded, const MountTable& mounts) {
  const auto resolved = [&](const std::string& path) { return plain(followPath(mounts, path).real); };
  TreeOptions options;
  options.reportedPath = given;
  dropTrailingSeparators(options.reportedPath);
  options.openPath = absolutePath(given);
  dropTrailingSeparators(options.openPath);
  if (options.openPath.empty()) options.openPath = "/";
  const std::string asGiven = plain(options.openPath);
  const std::string asResolved = resolved(options.openPath);
  for (const std::string& path : excluded) {
    addExclusion(asGiven, plain(absolutePath(path)), options.exclusions);
    if (asResolved != asGiven) addExclusion(asResolved, resolved(absolutePath(path)), options.exclusions);
  }
  return options;
}

}  // namespace platform::fsevents
