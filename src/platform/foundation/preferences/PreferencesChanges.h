#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/preferences/PreferencesFile.h"
#include "platform/foundation/value/Object.h"

namespace platform {

/// Values by key that are to come into a domain. Threads: as any container's.
class PreferencesChanges {
 public:
  /// Nil removes the key.
  void put(std::string_view key, Object value);
  void drop(std::string_view key);
  /// Forgets those of `written` that no later change has replaced.
  void dropThoseOf(const PreferencesChanges& written);

  /// The number of the last change, and forgetting all up to that one.
  [[nodiscard]] std::uint64_t latest() const { return changes_; }
  void dropUpTo(std::uint64_t change);

  [[nodiscard]] bool empty() const { return entries_.empty(); }
  /// Null when there is none.
  [[nodiscard]] const Object* find(std::string_view key) const;
  [[nodiscard]] bool areIn(const Object& values) const;

  /// What they make of `values`. A change that would take the domain beyond the bounds of a property list is left out alone: its key comes
  /// into `refused`, with the reason in `why`.
  [[nodiscard]] PreferencesDecision decide(const Object& values, std::vector<std::string>& refused, std::string& why) const;

 private:
  struct Entry {
    Object value;
    std::uint64_t order;
  };

  std::map<std::string, Entry, std::less<>> entries_;
  std::uint64_t changes_ = 0;
};

}  // namespace platform
