#include "tests/fsevents/support/TruthChronicle.h"

#include <algorithm>

namespace kestrine::test {

void TruthChronicle::open(const Place& place, std::uint32_t item, std::int64_t from) {
  bindings_[place].push_back({from, kStill, item});
  if (item != 0) stays_[item].push_back({from, kStill, place});
}

void TruthChronicle::close(const Place& place, std::int64_t until) {
  const auto found = bindings_.find(place);
  if (found == bindings_.end()) return;
  for (auto& binding : found->second) {
    if (binding.until != kStill) continue;
    binding.until = until;
    closed_.push_back(place);
    if (binding.item == 0) continue;
    for (auto& stay : stays_[binding.item]) {
      if (stay.until == kStill) stay.until = until;
    }
    left_.push_back(binding.item);
  }
}

void TruthChronicle::take(const std::vector<TruthRecord>& records) {
  using What = TruthRecord::What;
  for (const auto& record : records) {
    const Place place{record.folder, std::string(textOf(record.name))};
    const Place other{record.newFolder, std::string(textOf(record.newName))};
    switch (record.what) {
      case What::Made:
        open(place, record.item, record.before);
        break;
      case What::Removed:
        close(place, record.after);
        break;
      case What::Moved:
        close(place, record.after);
        open(other, record.item, record.before);
        break;
      case What::Exchanged:
        close(place, record.after);
        close(other, record.after);
        open(other, record.item, record.before);
        open(place, record.otherItem, record.before);
        break;
      case What::Written:
      case What::Attributes:
        break;
    }
  }
}

void TruthChronicle::settle() {
  for (const auto& place : closed_) {
    const auto found = bindings_.find(place);
    if (found == bindings_.end()) continue;
    std::erase_if(found->second, [](const Binding& binding) { return binding.until != kStill; });
    if (found->second.empty()) bindings_.erase(found);
  }
  for (const auto item : left_) {
    const auto found = stays_.find(item);
    if (found == stays_.end()) continue;
    std::erase_if(found->second, [](const Stay& stay) { return stay.until != kStill; });
    if (found->second.empty()) stays_.erase(found);
  }
  closed_.clear();
  left_.clear();
}

void TruthChronicle::find(std::uint32_t folder, std::string_view path, std::int64_t from, std::int64_t until,
                          std::vector<Meaning>& found) const {
  const auto end = path.find('/', 1);
  const Place place{folder, std::string(path.substr(1, end == std::string_view::npos ? end : end - 1))};
  const auto bindings = bindings_.find(place);
  if (bindings == bindings_.end()) return;
  for (const auto& binding : bindings->second) {
    const auto begins = std::max(from, binding.from);
    const auto ends = std::min(until, binding.until);
    if (begins > ends) continue;
    if (end == std::string_view::npos) {
      found.push_back({place, until, ends, binding.item});
    } else if (binding.item != 0) {
      find(binding.item, path.substr(end), begins, ends, found);
    }
  }
}

std::vector<TruthChronicle::Meaning> TruthChronicle::meaningsOf(std::string_view path, std::int64_t time) const {
  std::vector<Meaning> found;
  if (!path.empty()) find(TruthWorld::kWatchedNumber, path, 0, time, found);
  return found;
}

bool TruthChronicle::existedAt(const Place& place, std::int64_t time) const {
  const auto bindings = bindings_.find(place);
  return bindings != bindings_.end() && std::any_of(bindings->second.begin(), bindings->second.end(),
                                                    [&](const Binding& binding) { return binding.from <= time && time <= binding.until; });
}

const TruthChronicle::Place* TruthChronicle::placeAt(std::uint32_t folder, std::int64_t time) const {
  const auto stays = stays_.find(folder);
  if (stays == stays_.end()) return nullptr;
  const Place* place = nullptr;
  for (const auto& stay : stays->second) {
    if (stay.from <= time && time <= stay.until) place = &stay.place;
  }
  return place;
}

std::vector<std::uint32_t> TruthChronicle::waysUp(std::uint32_t folder, std::int64_t time) const {
  std::vector<std::uint32_t> way{folder};
  for (const auto* place = placeAt(folder, time); place != nullptr; place = placeAt(place->folder, time)) way.push_back(place->folder);
  return way;
}

std::string TruthChronicle::pathAt(std::uint32_t folder, std::int64_t time) const {
  std::string path;
  for (const auto* place = placeAt(folder, time); place != nullptr; place = placeAt(folder, time)) {
    path.insert(0, "/" + place->name);
    folder = place->folder;
  }
  const std::string top = folder == TruthWorld::kWatchedNumber ? "" : folder == TruthWorld::kOutsideNumber ? "(outside)" : "(nowhere)";
  return top + path;
}

std::vector<std::string> TruthChronicle::folders() const {
  std::vector<std::string> paths{""};
  for (const auto& [item, stays] : stays_) {
    if (waysUp(item, kStill).back() == TruthWorld::kWatchedNumber) paths.push_back(pathAt(item, kStill));
  }
  return paths;
}

}  // namespace kestrine::test
