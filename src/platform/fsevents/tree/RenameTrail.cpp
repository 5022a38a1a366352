#include "platform/fsevents/tree/RenameTrail.h"

#include <algorithm>
#include <utility>

namespace platform::fsevents {
namespace {

/// Longer ways back are left to the look that follows every rename.
constexpr std::size_t kMostPlaces = 16;

}  // namespace

std::vector<RenameTrail::Place> RenameTrail::follow(std::string_view target, Place from, const Place& to) {
  std::vector<Place> places;
  const std::string folder(target);
  const auto lookFrom = [&](const Place& place) {
    const auto [first, last] = renames_.equal_range({folder, place});
    for (auto rename = first; rename != last && places.size() < kMostPlaces; ++rename) {
      const Place& next = rename->second;
      if (next != to && std::find(places.begin(), places.end(), next) == places.end()) places.push_back(next);
    }
  };
  if (!renames_.empty()) lookFrom(to);
  for (std::size_t i = 0; i < places.size(); ++i) lookFrom(Place(places[i]));
  renames_.emplace(std::pair(folder, std::move(from)), to);
  return places;
}

}  // namespace platform::fsevents
