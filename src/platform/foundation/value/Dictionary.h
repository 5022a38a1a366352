#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/value/Object.h"

namespace platform {

/// Entries of a dictionary value. Keys are text and unique; the order is the keys' byte order. With the operations of a std::map, but in
/// one piece of memory: a lookup is a binary search, an entry whose key comes last is put in at the cost of a push_back, any other moves
/// the entries behind it. Many entries in no order go through `withEntries`. A change invalidates iterators and references.
///
/// Threads: as any container's.
class Dictionary {
 public:
  using key_type = std::string;
  using mapped_type = Object;
  using value_type = std::pair<std::string, Object>;
  using size_type = std::size_t;
  /// Entries are changed by key.
  using const_iterator = std::vector<value_type>::const_iterator;
  using iterator = const_iterator;

  Dictionary() = default;
  /// Of equal keys the first counts.
  Dictionary(std::initializer_list<value_type> entries);
  /// In any order; of equal keys the last counts. Costs what sorting costs, and nothing more when they are sorted.
  static Dictionary withEntries(std::vector<value_type> entries);

  [[nodiscard]] const_iterator begin() const noexcept { return entries_.begin(); }
  [[nodiscard]] const_iterator end() const noexcept { return entries_.end(); }
  [[nodiscard]] std::size_t size() const noexcept { return entries_.size(); }
  [[nodiscard]] bool empty() const noexcept { return entries_.empty(); }
  void reserve(std::size_t count) { entries_.reserve(count); }
  void clear() noexcept { entries_.clear(); }

  [[nodiscard]] const_iterator find(std::string_view key) const;
  [[nodiscard]] bool contains(std::string_view key) const { return find(key) != end(); }
  [[nodiscard]] std::size_t count(std::string_view key) const { return contains(key) ? 1 : 0; }
  /// Throws std::out_of_range when there is none.
  [[nodiscard]] const Object& at(std::string_view key) const;
  /// Nil is put in when there is none.
  Object& operator[](std::string_view key) { return entries_[indexOf(emplace(key, Object()).first)].second; }

  /// Puts it in unless the key is there.
  template <class Key, class Value>
  std::pair<const_iterator, bool> emplace(Key&& key, Value&& value) {
    const const_iterator place = placeOf(key);
    if (holds(place, key)) return {place, false};
    return {entries_.emplace(place, std::forward<Key>(key), std::forward<Value>(value)), true};
  }
  template <class Key, class Value>
  const_iterator emplace_hint(const_iterator /*hint*/, Key&& key, Value&& value) {
    return emplace(std::forward<Key>(key), std::forward<Value>(value)).first;
  }
  template <class Key, class Value>
  std::pair<const_iterator, bool> insert_or_assign(Key&& key, Value&& value) {
    const const_iterator place = placeOf(key);
    if (!holds(place, key)) return {entries_.emplace(place, std::forward<Key>(key), std::forward<Value>(value)), true};
    entries_[indexOf(place)].second = std::forward<Value>(value);
    return {place, false};
  }
  /// The number of entries removed.
  std::size_t erase(std::string_view key);

  friend bool operator==(const Dictionary& a, const Dictionary& b) = default;

 private:
  /// Where the key is or belongs.
  [[nodiscard]] const_iterator placeOf(std::string_view key) const;
  [[nodiscard]] bool holds(const_iterator place, std::string_view key) const { return place != end() && place->first == key; }
  [[nodiscard]] std::size_t indexOf(const_iterator place) const { return static_cast<std::size_t>(place - begin()); }

  std::vector<value_type> entries_;
};

}  // namespace platform
