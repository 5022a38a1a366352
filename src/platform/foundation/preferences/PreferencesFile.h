#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/base/Result.h"
#include "platform/foundation/preferences/PreferencesError.h"
#include "platform/foundation/preferences/PreferencesLock.h"
#include "platform/foundation/preferences/PreferencesVersion.h"
#include "platform/foundation/value/Object.h"

namespace platform {

class PreferencesFolder;
class PreferencesPlace;

/// Of a file's bytes.
inline std::size_t hashOfPreferences(std::string_view bytes) { return std::hash<std::string_view>()(bytes); }

/// What a preferences file holds, as it was read or written. Threads: constant but for `durable`.
struct PreferencesContents {
  /// A dictionary; nil when there is no file.
  Object values;
  FileVersion version;
  /// Of the file's bytes, so that equal ones are not read as a property list again. Empty when there is no file.
  std::optional<std::size_t> hash = {};
  /// File and folder are known to have been flushed since.
  mutable std::atomic<bool> durable = false;
};
using PreferencesSnapshot = std::shared_ptr<const PreferencesContents>;

/// What is to become of a file, given what it holds.
struct PreferencesDecision {
  enum class Kind {
    Leave,  ///< it was only looked at
    Keep,   ///< it holds what is wanted, which is made durable
    Put,    ///< `values` are written, and nil removes the file
  };
  Kind kind = Kind::Leave;
  Object values = {};
  /// The same as a property list.
  std::string bytes = {};

  static PreferencesDecision leave() { return {}; }
  static PreferencesDecision keep() { return {Kind::Keep}; }
  /// Throws PropertyListError when a property list cannot hold them.
  static PreferencesDecision put(Object values);
};

/// The file of one domain: reading it, and changing it under its lock.
///
/// Readers wait neither for the lock nor for a flush and change nothing on disk. Writers of the same file exclude each other across threads
/// and processes. Threads: any thread may call anything.
class PreferencesFile {
 public:
  using Clock = PreferencesLock::Clock;
  using Change = std::function<PreferencesDecision(const Object& values)>;

  struct Outcome {
    /// What is on disk afterwards; null when that is not known.
    PreferencesSnapshot contents;
    std::optional<PreferencesError> error;
  };

  PreferencesFile(std::string folder, std::string_view domain);

  [[nodiscard]] const std::string& path() const { return path_; }

  struct Reading {
    /// Null when the file cannot be read.
    PreferencesSnapshot contents;
    std::optional<PreferencesError> error;
    /// The file that `error` is about.
    FileVersion damaged;
  };
  /// What is on disk now. `known`, when it is not null, is what was read before: its durability carries over to an equal file.
  [[nodiscard]] Reading read(const PreferencesSnapshot& known = nullptr) const;
  /// The same; a damaged file that changed just now, which somebody may be writing, is read again for a moment.
  [[nodiscard]] Reading readPatiently() const;

  /// Changes the file under its lock, for which it waits until `end`. `known`, when it is not null, is what was read before: it is not read
  /// again when nothing has changed, and takes the place of a damaged file. A damaged file that nobody has changed for a while is kept
  /// aside before it is replaced. Exceptions of `change` pass; it is called again when somebody without the lock has changed the file
  /// meanwhile.
  [[nodiscard]] Outcome update(const Change& change, const PreferencesSnapshot& known, Clock::time_point end) const;
  /// Does all that precedes the replacing of the file, under its lock, and takes it back. An error when it cannot be done.
  [[nodiscard]] std::optional<PreferencesError> tryToWrite(Clock::time_point end) const;
  /// Makes durable what was read. An error when it cannot be.
  [[nodiscard]] std::optional<PreferencesError> flush(const PreferencesContents& contents) const;

 private:
  struct Loaded {
    PreferencesSnapshot contents;
    std::optional<PreferencesError> damage;
    FileVersion damaged;
  };

  [[nodiscard]] Loaded load(const PreferencesSnapshot& known) const;
  [[nodiscard]] Loaded loadSettled(const PreferencesSnapshot& known, Clock::time_point end) const;
  [[nodiscard]] Outcome updateLocked(const PreferencesFolder& folder, const PreferencesLock& lock, const Change& change,
                                     const PreferencesSnapshot& known, Clock::time_point end) const;
  [[nodiscard]] Outcome apply(const PreferencesPlace& place, const PreferencesLock& lock, PreferencesDecision decision,
                              const Loaded& found) const;
  [[nodiscard]] FileVersion replace(const PreferencesPlace& place, const PreferencesLock& lock, const std::string& bytes,
                                    const Loaded& found) const;
  void removeLeftovers(const PreferencesPlace& place) const;

  const std::string folder_;
  const std::string name_;
  const std::string path_;
  /// What killed writers left is looked for once.
  mutable std::atomic<bool> isCleaned_ = false;
};

}  // namespace platform
