#include "platform/fsevents/Unsettled.h"

#include <algorithm>
#include <utility>

namespace platform::fsevents {

void Unsettled::add(UnsettledPlace place) {
  const auto same = std::find_if(places_.begin(), places_.end(), [&](const UnsettledPlace& other) {
    return other.name == place.name && other.target == place.target && other.folder == place.folder;
  });
  if (same == places_.end()) {
    places_.push_back(std::move(place));
    return;
  }
  same->report |= place.report;
  same->isUntold = same->isUntold || place.isUntold;
  // The latest word on a folder is looked at first.
  std::rotate(same, same + 1, places_.end());
}

bool Unsettled::hasTarget(std::string_view key) const {
  return std::any_of(places_.begin(), places_.end(), [&](const UnsettledPlace& place) { return place.target == key; });
}

std::vector<UnsettledPlace> Unsettled::take() {
  std::vector<UnsettledPlace> taken = std::exchange(places_, {});
  std::stable_sort(taken.begin(), taken.end(), [](const auto& a, const auto& b) { return a.target < b.target; });
  return taken;
}

}  // namespace platform::fsevents
