#include "watcher/CDEventsFilter.h"

#include <algorithm>

namespace kestrine {

namespace {

std::vector<std::string> pathsOf(const std::vector<platform::URL>& URLs) {
  std::vector<std::string> paths;
  paths.reserve(URLs.size());
  for (const platform::URL& url : URLs) paths.push_back(url.path());
  return paths;
}

}  // namespace

CDEventsFilter::CDEventsFilter(const std::vector<platform::URL>& watchedURLs, const std::optional<std::vector<platform::URL>>& excludedURLs)
    : watchedPaths_(pathsOf(watchedURLs)) {
  if (excludedURLs) excludedPaths_ = pathsOf(*excludedURLs);
}

bool CDEventsFilter::ignores(std::string_view eventPath, bool watchedFoldersOnly) const {
  if (watchedFoldersOnly) return std::ranges::find(watchedPaths_, eventPath) == watchedPaths_.end();
  return std::ranges::any_of(excludedPaths_, [&](const std::string& excluded) { return eventPath.starts_with(excluded); });
}

}  // namespace kestrine
