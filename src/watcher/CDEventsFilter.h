#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/url/URL.h"

namespace kestrine {

/// Which events of one batch are left out, by path.
class CDEventsFilter {
 public:
  CDEventsFilter(const std::vector<platform::URL>& watchedURLs, const std::optional<std::vector<platform::URL>>& excludedURLs);

  /// With `watchedFoldersOnly`, everything is left out but the watched folders themselves, and the excluded ones play no part. Without it,
  /// every path that begins with an excluded one is left out, character by character: "/a/Downloads" leaves out "/a/Downloads2" too.
  [[nodiscard]] bool ignores(std::string_view eventPath, bool watchedFoldersOnly) const;

 private:
  std::vector<std::string> watchedPaths_;
  std::vector<std::string> excludedPaths_;
};

}  // namespace kestrine
