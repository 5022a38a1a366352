#pragma once

#include <cerrno>
#include <cstddef>
#include <vector>

namespace platform {

/// What `take` makes of an entry of the user or group database that `lookUp` reads, as getpwuid_r(3) and its like do: with as much room as
/// it needs. A default result where there is no such entry. Any thread.
template <class Entry, class LookUp, class Take>
auto databaseEntry(LookUp lookUp, Take take) -> decltype(take(Entry{})) {
  constexpr std::size_t kMostRoom = std::size_t{1} << 20U;
  for (std::vector<char> room(1024); room.size() <= kMostRoom; room.resize(room.size() * 2)) {
    Entry entry{};
    Entry* found = nullptr;
    if (lookUp(&entry, room.data(), room.size(), &found) == ERANGE) continue;
    if (found == nullptr) return {};
    return take(*found);
  }
  return {};
}

}  // namespace platform
