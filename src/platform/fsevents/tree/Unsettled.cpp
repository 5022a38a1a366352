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

bool Unsettled::hasTarget(std::string_view key, const FolderReference& otherThan, std::string_view name) const {
  const auto isElsewhere = [&](const UnsettledPlace& place) { return place.folder != otherThan || place.name != name; };
  for (auto each = places_.lower_bound({std::string(key), FolderReference{}, std::string()}); each != places_.end(); ++each) {
    if (each->second.target != key) return false;
    if (isElsewhere(each->second)) return true;
  }
  return false;
}

std::vector<UnsettledPlace> Unsettled::take() {
  std::vector<UnsettledPlace> taken;
  taken.reserve(places_.size());
  for (auto& [at, place] : places_) taken.push_back(std::move(place));
  places_.clear();
  return taken;
}

}  // namespace platform::fsevents
