#include "platform/fsevents/tree/Unsettled.h"

#include <algorithm>
#include <utility>

namespace platform::fsevents {

void Unsettled::add(UnsettledPlace place) {
  std::tuple at{place.target, place.folder, place.name};
  if (const auto same = places_.find(at); same != places_.end()) {
    UnsettledPlace& known = same->second;
    known.report |= place.report;
    known.isUntold = known.isUntold || place.isUntold;
    known.tries = std::max(known.tries, place.tries);
    return;
  }
  places_.emplace(std::move(at), std::move(place));
}

bool Unsettled::hasTarget(std::string_view key) const {
  const auto first = places_.lower_bound({std::string(key), FolderReference{}, std::string()});
  return first != places_.end() && first->second.target == key;
}

std::vector<UnsettledPlace> Unsettled::take() {
  std::vector<UnsettledPlace> taken;
  taken.reserve(places_.size());
  for (auto& [at, place] : places_) taken.push_back(std::move(place));
  places_.clear();
  return taken;
}

}  // namespace platform::fsevents
