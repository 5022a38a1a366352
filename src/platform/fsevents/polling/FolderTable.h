#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fsevents/polling/PolledItem.h"

namespace platform::fsevents {

/// The items of one folder as a look showed them, in an order of their own that two tables share, so that comparing them is one walk over
/// both. Filled by `append`, then put in order by `arrange`.
///
/// Memory: 32 bytes an item, and the names with three bytes each, in one block.
/// Threads: as its owner's.
class FolderTable {
 public:
  /// Of one name appended twice the later counts; one that is absent removes it. Names are any bytes, at most 65,535 (NAME_MAX is far
  /// below). False when the names would need more than four GiB.
  [[nodiscard]] bool append(std::string_view name, const PolledItem& item);
  /// To be called after the last `append`; more may be appended afterwards, and then it is to be called again.
  void arrange();

  [[nodiscard]] std::size_t size() const { return entries_.size(); }
  [[nodiscard]] std::string_view name(std::size_t at) const;
  [[nodiscard]] PolledItem item(std::size_t at) const;
  void setItem(std::size_t at, const PolledItem& item);
  /// Absent when there is none of that name.
  [[nodiscard]] PolledItem find(std::string_view name) const;
  /// Heap memory in use.
  [[nodiscard]] std::size_t bytes() const { return entries_.capacity() * sizeof(Entry) + names_.capacity(); }

  /// Calls `visit(before, after)` with the places of each name in the two tables, in their order; kNone where a table has no such name.
  static constexpr std::size_t kNone = ~std::size_t{0};
  template <class Visit>
  static void walk(const FolderTable& before, const FolderTable& after, const Visit& visit) {
    std::size_t b = 0;
    std::size_t a = 0;
    while (b < before.size() || a < after.size()) {
      const int order = b == before.size() ? 1 : a == after.size() ? -1 : compare(before, b, after, a);
      visit(order <= 0 ? b : kNone, order >= 0 ? a : kNone);
      if (order <= 0) ++b;
      if (order >= 0) ++a;
    }
  }

 private:
  struct Entry {
    std::uint32_t hash;
    /// Of two bytes with the length, one with the item's kind and bits, and the name.
    std::uint32_t text;
    std::uint64_t inode;
    std::int64_t changed;
    std::uint32_t birth;
    std::uint32_t content;
  };
  static_assert(sizeof(Entry) == 32);

  static int compare(const FolderTable& one, std::size_t at, const FolderTable& other, std::size_t otherAt);
  [[nodiscard]] std::string_view nameOf(const Entry& entry) const;
  [[nodiscard]] bool isAbsent(const Entry& entry) const;
  void write(Entry& entry, const PolledItem& item);

  std::vector<Entry> entries_;
  std::vector<char> names_;
};

}  // namespace platform::fsevents
