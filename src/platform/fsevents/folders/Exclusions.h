#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/files/Paths.h"

namespace platform::fsevents {

/// Places of a tree that are left out, by whole components, with everything below them. They belong to the path and not to the folder that
/// stands there: a folder that is renamed leaves them behind. A value.
class Exclusions {
 public:
  Exclusions() = default;
  /// Relative to the tree: "/a/b"; "" leaves out everything.
  explicit Exclusions(std::vector<std::string> places) : places_(std::move(places)) {}

  [[nodiscard]] bool empty() const { return places_.empty(); }
  [[nodiscard]] bool contain(std::string_view path) const {
    for (const std::string& place : places_) {
      if (isAtOrBelowPath(path, place)) return true;
    }
    return false;
  }
  /// The parts ("/x/y") of a folder which are left out while it stands at `path`.
  [[nodiscard]] std::vector<std::string> partsBelow(std::string_view path) const {
    std::vector<std::string> parts;
    for (const std::string& place : places_) {
      if (isBelowPath(place, path)) parts.push_back(place.substr(path.size()));
    }
    return parts;
  }

 private:
  std::vector<std::string> places_;
};

}  // namespace platform::fsevents
