#include "platform/foundation/value/Dictionary.h"

#include <stdexcept>

namespace platform {

namespace {

using Entry = Dictionary::value_type;

bool keyLess(const Entry& a, const Entry& b) { return a.first < b.first; }

/// In the order of their keys, equal ones in the order in which they were.
void sortByKey(std::vector<Entry>& entries) {
  constexpr std::size_t kFew = 24;
  if (entries.size() > kFew) return std::stable_sort(entries.begin(), entries.end(), keyLess);
  for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
    std::rotate(std::upper_bound(entries.begin(), entry, *entry, keyLess), entry, entry + 1);
  }
}

}  // namespace

Dictionary::Dictionary(std::initializer_list<value_type> entries) {
  entries_.reserve(entries.size());
  for (const auto& [key, value] : entries) emplace(key, value);
}

Dictionary Dictionary::withEntries(std::vector<value_type> entries) {
  const auto notAfter = [](const Entry& a, const Entry& b) { return a.first >= b.first; };
  if (std::adjacent_find(entries.begin(), entries.end(), notAfter) != entries.end()) {
    sortByKey(entries);
    // Seen from the end, the first of equal keys stays.
    const auto sameKey = [](const Entry& a, const Entry& b) { return a.first == b.first; };
    entries.erase(entries.begin(), std::unique(entries.rbegin(), entries.rend(), sameKey).base());
  }
  Dictionary dictionary;
  dictionary.entries_ = std::move(entries);
  return dictionary;
}

Dictionary::const_iterator Dictionary::placeOf(std::string_view key) const {
  if (entries_.empty() || entries_.back().first < key) return end();
  return std::lower_bound(begin(), end(), key, [](const Entry& entry, std::string_view wanted) { return entry.first < wanted; });
}

Dictionary::const_iterator Dictionary::find(std::string_view key) const {
  const const_iterator place = placeOf(key);
  return holds(place, key) ? place : end();
}

const Object& Dictionary::at(std::string_view key) const {
  const const_iterator found = find(key);
  if (found == end()) throw std::out_of_range("a dictionary has no such key");
  return found->second;
}

std::size_t Dictionary::erase(std::string_view key) {
  const const_iterator found = find(key);
  if (found == end()) return 0;
  entries_.erase(found);
  return 1;
}

}  // namespace platform
