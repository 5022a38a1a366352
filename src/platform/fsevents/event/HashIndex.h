#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace platform::fsevents {

/// Finds things that their owner numbers by a hash of something that they hold. Open addressing with linear probing; the hashes stand in
/// the table, so that a probe seldom looks at a thing, and growing never does. Eight bytes a slot, at most three slots of four taken; no
/// memory while it is empty. Threads: owned and used by one thread.
class HashIndex {
 public:
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  /// The number with this hash that `matches(number)` takes for the wanted one; kNone when there is none.
  template <class Matches>
  [[nodiscard]] std::uint32_t find(std::uint32_t hash, const Matches& matches) const {
    if (slots_.empty()) return kNone;
    for (std::size_t at = home(hash); slots_[at].number != kNone; at = after(at)) {
      if (slots_[at].hash == hash && matches(slots_[at].number)) return slots_[at].number;
    }
    return kNone;
  }

  /// The number must not be in it yet.
  void insert(std::uint32_t hash, std::uint32_t number) {
    if ((used_ + 1) * 4 > slots_.size() * 3) grow();
    place({hash, number});
    ++used_;
  }

  /// Nothing when the number is not in it.
  void erase(std::uint32_t hash, std::uint32_t number) {
    if (slots_.empty()) return;
    std::size_t hole = home(hash);
    for (; slots_[hole].number != number; hole = after(hole)) {
      if (slots_[hole].number == kNone) return;
    }
    // Whatever probed past the hole moves into it, or a later look-up would stop there.
    for (std::size_t at = after(hole); slots_[at].number != kNone; at = after(at)) {
      if (distance(home(slots_[at].hash), at) >= distance(hole, at)) {
        slots_[hole] = slots_[at];
        hole = at;
      }
    }
    slots_[hole].number = kNone;
    --used_;
  }

  /// Gives its memory back too.
  void clear() {
    slots_ = {};
    used_ = 0;
  }

 private:
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t number = kNone;
  };
  static constexpr std::size_t kSmallest = 64;

  [[nodiscard]] std::size_t home(std::uint32_t hash) const { return hash & (slots_.size() - 1); }
  [[nodiscard]] std::size_t after(std::size_t at) const { return (at + 1) & (slots_.size() - 1); }
  [[nodiscard]] std::size_t distance(std::size_t from, std::size_t to) const { return (to - from) & (slots_.size() - 1); }
  void place(Slot slot) {
    std::size_t at = home(slot.hash);
    while (slots_[at].number != kNone) at = after(at);
    slots_[at] = slot;
  }
  void grow() {
    const std::vector<Slot> former = std::exchange(slots_, std::vector<Slot>(slots_.empty() ? kSmallest : slots_.size() * 2));
    for (const Slot& slot : former) {
      if (slot.number != kNone) place(slot);
    }
  }

  /// A power of two, or none.
  std::vector<Slot> slots_;
  std::size_t used_ = 0;
};

}  // namespace platform::fsevents
