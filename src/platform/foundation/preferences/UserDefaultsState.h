#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/preferences/Forks.h"
#include "platform/foundation/preferences/PreferencesChanges.h"
#include "platform/foundation/preferences/PreferencesFile.h"

namespace platform {

/// What one UserDefaults knows in one process: what was last read of its domain, and what is not yet written. The mutex guards memory and
/// is never held while a file is touched, so that who reads waits for nobody; who writes takes turns.
///
/// Threads: any thread may call anything. A child made by fork makes its own.
class UserDefaultsState {
 public:
  using Clock = PreferencesFile::Clock;

  UserDefaultsState(const std::string& folder, std::string_view domain) : file_(folder, domain) {}
  UserDefaultsState(const UserDefaultsState&) = delete;
  UserDefaultsState& operator=(const UserDefaultsState&) = delete;
  ~UserDefaultsState() = default;

  Object value(std::string_view key) EXCLUDES(mutex_);
  void remember(Object value, std::string_view key) EXCLUDES(mutex_);
  void forget(std::string_view key) EXCLUDES(mutex_);
  bool synchronize() EXCLUDES(mutex_);
  Object exchange(std::string_view key, const std::function<Object(const Object&)>& decide, bool* failed) EXCLUDES(mutex_);

  /// Keeps how reading or writing the file at `path` went for whoever asks, and says a failure in the log, once for each reason. True when
  /// it went well.
  bool noteRead(const std::string& path, const std::optional<PreferencesError>& error) EXCLUDES(mutex_);
  bool noteWrite(const std::string& path, const std::optional<PreferencesError>& error) EXCLUDES(mutex_);
  std::optional<PreferencesError> lastError() EXCLUDES(mutex_);

 private:
  class Turn;
  struct Known {
    PreferencesSnapshot contents;
    /// It is what is on disk now.
    bool isCurrent = false;
  };

  [[nodiscard]] Clock::time_point endOfWait() EXCLUDES(mutex_);
  [[nodiscard]] PreferencesSnapshot known() EXCLUDES(mutex_);
  /// What is on disk, read again if that may be something else.
  Known refreshed(const PreferencesSnapshot& known) EXCLUDES(mutex_);
  Object valueOnDisk(std::string_view key) EXCLUDES(mutex_);
  void install(const PreferencesFile::Outcome& outcome) EXCLUDES(mutex_);
  /// The cheap look: the file is the one last read, is durable and holds the changes, which are forgotten then.
  /// `answer` is what the file's version said, if it was asked.
  bool isThereAlready(std::optional<FileVersion::Answer>& answer) EXCLUDES(mutex_);
  bool write(const PreferencesChanges& pending, const PreferencesSnapshot& known, Clock::time_point end) EXCLUDES(mutex_);

  const unsigned generation_ = forkGeneration();
  const PreferencesFile file_;
  Mutex mutex_;
  Condition free_;
  bool isWriting_ GUARDED_BY(mutex_) = false;
  PreferencesSnapshot onDisk_ GUARDED_BY(mutex_);
  PreferencesChanges changes_ GUARDED_BY(mutex_);
  /// Something of ours is written and not flushed.
  bool isFlushOwed_ GUARDED_BY(mutex_) = false;
  /// A file that cannot be read, so that it is not read with each look.
  std::shared_ptr<const FileVersion> damaged_ GUARDED_BY(mutex_);
  std::optional<PreferencesError> readError_ GUARDED_BY(mutex_);
  std::optional<PreferencesError> writeError_ GUARDED_BY(mutex_);
};

}  // namespace platform
