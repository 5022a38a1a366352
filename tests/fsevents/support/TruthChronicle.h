#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tests/fsevents/support/TruthWorld.h"

namespace kestrine::test {

/// What every path meant at every moment of one window: put together from the workers' logs. Times are those of the logs; a name counts as
/// long as the system calls that made and unmade it may have let it be seen.
class TruthChronicle {
 public:
  static constexpr std::int64_t kStill = std::numeric_limits<std::int64_t>::max();
  /// A name in a folder.
  struct Place {
    std::uint32_t folder = 0;
    std::string name;
    friend bool operator==(const Place&, const Place&) = default;
  };
  struct PlaceHash {
    std::size_t operator()(const Place& place) const { return std::hash<std::string>{}(place.name) * 31 + place.folder; }
  };
  /// One thing that a path meant from one time to another.
  struct Meaning {
    Place place;
    /// While the folder of the place had this path; and while the item was in it as well.
    std::int64_t folderUntil = 0;
    std::int64_t until = 0;
    /// The number of the item, if it was a folder.
    std::uint32_t item = 0;
  };

  /// Goes on with what the workers did since; in the order of their clocks.
  void take(const std::vector<TruthRecord>& records);
  /// Begins a new window: forgets what is no more.
  void settle();

  /// Everything that existed at this path ("/a/b", below the watched folder) before `time`.
  [[nodiscard]] std::vector<Meaning> meaningsOf(std::string_view path, std::int64_t time) const;
  [[nodiscard]] bool existedAt(const Place& place, std::int64_t time) const;
  /// The folder and the folders above it at that time, outermost last; ends with the watched one's number, or another where it was not
  /// below that.
  [[nodiscard]] std::vector<std::uint32_t> waysUp(std::uint32_t folder, std::int64_t time) const;
  /// Its path at that time, for people.
  [[nodiscard]] std::string pathAt(std::uint32_t folder, std::int64_t time) const;
  /// Every folder's present path below the watched one, "" included.
  [[nodiscard]] std::vector<std::string> folders() const;

 private:
  struct Binding {
    std::int64_t from;
    std::int64_t until;
    std::uint32_t item;
  };
  struct Stay {
    std::int64_t from;
    std::int64_t until;
    Place place;
  };
  void open(const Place& place, std::uint32_t item, std::int64_t from);
  void close(const Place& place, std::int64_t until);
  void find(std::uint32_t folder, std::string_view path, std::int64_t from, std::int64_t until, std::vector<Meaning>& found) const;
  [[nodiscard]] const Place* placeAt(std::uint32_t folder, std::int64_t time) const;

  std::unordered_map<Place, std::vector<Binding>, PlaceHash> bindings_;
  std::unordered_map<std::uint32_t, std::vector<Stay>> stays_;
  std::vector<Place> closed_;
  std::vector<std::uint32_t> left_;
};

}  // namespace kestrine::test
