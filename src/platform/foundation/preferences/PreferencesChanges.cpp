#include "platform/foundation/preferences/PreferencesChanges.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <span>
#include <utility>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

using Change = std::pair<std::string_view, const Object*>;

/// Both are in the order of their keys and gone through once.
Object merged(const Object& values, std::span<const Change> changes) {
  std::vector<Change> sorted(changes.begin(), changes.end());
  std::ranges::sort(sorted, std::less<>(), &Change::first);
  const Dictionary& former = values.dictionaryValue();
  std::vector<Dictionary::value_type> entries;
  entries.reserve(former.size() + sorted.size());
  auto kept = former.begin();
  for (const auto& [key, value] : sorted) {
    const auto next =
        std::lower_bound(kept, former.end(), key, [](const auto& entry, std::string_view sought) { return entry.first < sought; });
    entries.insert(entries.end(), kept, next);
    if (!value->isNil()) entries.emplace_back(key, *value);
    kept = next != former.end() && next->first == key ? next + 1 : next;
  }
  entries.insert(entries.end(), kept, former.end());
  return Dictionary::withEntries(std::move(entries));
}

/// Takes as many of the changes as fit, in their order. Halving finds a few that do not among many that do without writing as many lists.
class Fitting {
 public:
  Fitting(const Object& values, std::vector<std::string>& refused, std::string& why)
      : decision_{PreferencesDecision::Kind::Put, values, {}}, refused_(refused), why_(why) {}

  void take(std::span<const Change> changes) {
    if (changes.empty()) return;
    try {
      decision_ = PreferencesDecision::put(merged(decision_.values, changes));
      hasTaken_ = true;
    } catch (const PropertyListError& error) {
      if (changes.size() == 1) {
        refused_.emplace_back(changes.front().first);
        why_ = error.what();
        return;
      }
      take(changes.first(changes.size() / 2));
      take(changes.subspan(changes.size() / 2));
    }
  }

  PreferencesDecision decision() { return hasTaken_ ? std::move(decision_) : PreferencesDecision::leave(); }

 private:
  PreferencesDecision decision_;
  std::vector<std::string>& refused_;
  std::string& why_;
  bool hasTaken_ = false;
};

}  // namespace

void PreferencesChanges::put(std::string_view key, Object value) {
  const auto [entry, isNew] = entries_.try_emplace(std::string(key));
  entry->second = {std::move(value), ++changes_};
}

void PreferencesChanges::drop(std::string_view key) {
  if (const auto found = entries_.find(key); found != entries_.end()) entries_.erase(found);
}

void PreferencesChanges::dropUpTo(std::uint64_t change) {
  std::erase_if(entries_, [change](const auto& each) { return each.second.order <= change; });
}

void PreferencesChanges::dropThoseOf(const PreferencesChanges& written) {
  for (const auto& [key, entry] : written.entries_) {
    if (const auto found = entries_.find(key); found != entries_.end() && found->second.order == entry.order) entries_.erase(found);
  }
}

const Object* PreferencesChanges::find(std::string_view key) const {
  const auto found = entries_.find(key);
  return found == entries_.end() ? nullptr : &found->second.value;
}

bool PreferencesChanges::areIn(const Object& values) const {
  return std::ranges::all_of(entries_, [&](const auto& each) { return values.objectForKey(each.first) == each.second.value; });
}

PreferencesDecision PreferencesChanges::decide(const Object& values, std::vector<std::string>& refused, std::string& why) const {
  refused.clear();
  if (areIn(values)) return PreferencesDecision::keep();
  std::vector<std::map<std::string, Entry, std::less<>>::const_iterator> inOrder;
  inOrder.reserve(entries_.size());
  for (auto each = entries_.begin(); each != entries_.end(); ++each) inOrder.push_back(each);
  std::ranges::sort(inOrder, std::less<>(), [](const auto& each) { return each->second.order; });
  std::vector<Change> changes;
  changes.reserve(inOrder.size());
  for (const auto& each : inOrder) changes.emplace_back(each->first, &each->second.value);
  Fitting fitting(values, refused, why);
  fitting.take(changes);
  return fitting.decision();
}

}  // namespace platform
