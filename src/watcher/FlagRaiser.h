#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/concurrency/thread/ServingThread.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/process/StatusRegistry.h"
#include "platform/foundation/value/Object.h"

namespace kestrine {

/// Raises the flag in the process's own preferences for all of its watches, and owes it while it cannot be written: writes it again, soon
/// and then ever less often, until that succeeds or the application has seen it.
///
/// | state   | raise, written | raise, not written | later attempt, written | later attempt, not written |
/// |---------|----------------|--------------------|------------------------|----------------------------|
/// | written | written        | owed               | -                      | -                          |
/// | owed    | written        | owed               | written                | owed                       |
///
/// What is on disk and only not flushed is seen by the application, which may take it: then it is flushed and not written once more, since
/// that would raise it for nothing.
///
/// While it is owed, the section "owedFlag" of the status registry says since when and why (contract/FlagEntry.h).
/// Ownership: one for the process, never destroyed. Threads: any thread may call anything; later attempts are made by a thread of its own.
class FlagRaiser {
 public:
  using Clock = std::chrono::steady_clock;

  static FlagRaiser& shared();
  FlagRaiser(const FlagRaiser&) = delete;
  FlagRaiser& operator=(const FlagRaiser&) = delete;

  /// Makes the thread for later attempts, which takes descriptors: before they can be short. Where there is none to be had, later attempts
  /// are made on the run loop of the watch that met the failure.
  void prepare() EXCLUDES(mutex_);
  /// Raises the flag: sets it, says so in the log, and writes it.
  void raise() EXCLUDES(writing_, mutex_);
  /// For the end of the process: tries again and again until nothing is owed and nobody is writing. At `limit` it says in the log what
  /// could not be written, and returns false.
  bool finish(Clock::time_point limit) EXCLUDES(writing_, mutex_);

 private:
  FlagRaiser() = default;
  ~FlagRaiser() = default;

  /// One attempt. Empty when the flag stands on disk, durable, or the application has it; else why not.
  [[nodiscard]] std::string attempt(bool isNew) REQUIRES(writing_);
  /// One that is counted in `attempts_`, and its outcome noted.
  void makeAttempt(bool isNew) EXCLUDES(writing_, mutex_);
  void retry() EXCLUDES(writing_, mutex_);
  void note(const std::string& reason) REQUIRES(writing_) EXCLUDES(mutex_);
  void tryLater() EXCLUDES(mutex_);

  /// Held during an attempt.
  platform::Mutex writing_ ACQUIRED_BEFORE(mutex_);
  /// What is owed stands on disk, and is to be flushed only.
  bool isVisible_ GUARDED_BY(writing_) = false;
  platform::Date owedSince_ GUARDED_BY(writing_){};
  platform::StatusRegistry::Registration entry_ GUARDED_BY(writing_);

  platform::Mutex mutex_;
  platform::Condition changed_;
  /// Why the flag is owed; empty when it is not.
  std::string reason_ GUARDED_BY(mutex_);
  int attempts_ GUARDED_BY(mutex_) = 0;
  bool isRetryDue_ GUARDED_BY(mutex_) = false;
  bool isEnding_ GUARDED_BY(mutex_) = false;
  std::chrono::duration<double> delay_ GUARDED_BY(mutex_){};
  const platform::ServingThread* thread_ GUARDED_BY(mutex_) = nullptr;
};

}  // namespace kestrine
