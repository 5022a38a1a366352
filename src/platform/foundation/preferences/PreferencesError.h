#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace platform {

/// Why preferences could not be read or written. A value.
struct PreferencesError {
  enum class Kind {
    NoSuchDomain,  ///< it has no file
    Refused,       ///< the system does not let it be read or written, or it is no regular file
    Damaged,       ///< the file is no property list or holds no dictionary
    TooLarge,      ///< the file, or the domain as it would stand in it, is beyond the bounds of a property list
    Locked,        ///< another writer has had the lock for too long
    NotFlushed,    ///< it is written and everybody sees it, but it may be lost with the power; the next call tries again
  };
  Kind kind;
  /// "Permission denied"; what is wrong with the file's text; who holds the lock.
  std::string reason;
};

/// How one is thrown, within this room only.
class PreferencesFailure : public std::runtime_error {
 public:
  PreferencesFailure(PreferencesError::Kind kind, const std::string& reason) : std::runtime_error(reason), kind_(kind) {}
  [[nodiscard]] PreferencesError error() const { return {kind_, what()}; }

 private:
  PreferencesError::Kind kind_;
};

}  // namespace platform
