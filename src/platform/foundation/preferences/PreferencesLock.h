#pragma once

#include <chrono>
#include <string>

#include "platform/foundation/preferences/Forks.h"

namespace platform {

class PreferencesFolder;

/// The lock of one preferences file (flock(2) on a file of its own) for as long as this lives. Given back by name, not only by closing: a
/// child process that is about to run another program may share the descriptor. No other child has it. Threads: a value of one thread.
class PreferencesLock {
 public:
  using Clock = std::chrono::steady_clock;

  /// Waits until `end` for the lock whose file in the folder is called `name`, and says in the log who holds it when that takes long.
  /// `subject` is what it protects, for people. Throws PreferencesFailure (Locked) and std::system_error, which names the step.
  PreferencesLock(const PreferencesFolder& folder, const std::string& name, const std::string& subject, Clock::time_point end);
  PreferencesLock(PreferencesLock&&) = default;
  PreferencesLock& operator=(PreferencesLock&&) = delete;
  PreferencesLock(const PreferencesLock&) = delete;
  PreferencesLock& operator=(const PreferencesLock&) = delete;
  ~PreferencesLock();

  /// False in a child that was made while its parent held it.
  [[nodiscard]] bool isOurs() const { return file_.isOpen() && file_.isOfThisProcess(); }

 private:
  UnsharedDescriptor file_;
};

/// Who holds the flock(2) of the file that is open, as /proc/locks tells: "process 4711 (editor, which is stopped)", "another process".
std::string holderOfLock(int descriptor);

}  // namespace platform
