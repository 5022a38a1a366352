#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "platform/foundation/base/EventDescriptor.h"
#include "platform/foundation/base/Mutex.h"

namespace platform::fsevents {

/// What other threads ask of an engine's thread, and what it answers. Whoever waits is let go when the engine ends, and when it hangs.
/// Threads: any thread may ask; the engine's own answers.
class EngineRequests {
 public:
  using Clock = std::chrono::steady_clock;

  /// Throws std::system_error when the system has no descriptor left: nothing could end the engine.
  EngineRequests() = default;
  EngineRequests(const EngineRequests&) = delete;
  EngineRequests& operator=(const EngineRequests&) = delete;

  // Others' side.

  void requestStop() EXCLUDES(mutex_);
  /// Asks for everything that has changed until now; returns a ticket for `waitFlushed`.
  std::uint64_t requestFlush() EXCLUDES(mutex_);
  /// Whether everything that the ticket asked for has been offered, or never will be. Waits for that, or for `limit`.
  bool waitFlushed(std::uint64_t ticket, std::chrono::milliseconds limit) EXCLUDES(mutex_);
  /// Has the engine look at its queues, and waits a short time for that. Nothing on the engine's own thread.
  void refresh() EXCLUDES(mutex_);
  /// Has the engine's thread run this.
  void post(std::function<void()> task) EXCLUDES(mutex_);
  /// The engine does not get on, or does again.
  void setHanging(bool hangs) EXCLUDES(mutex_);
  /// Whether the watch stands; nothing when the engine hangs before it does.
  std::optional<bool> waitStanding() EXCLUDES(mutex_);
  /// Whether the engine's thread has let go of everything by then.
  bool waitEnded(Clock::time_point deadline) EXCLUDES(mutex_);
  [[nodiscard]] bool hasEnded() const EXCLUDES(mutex_);
  /// Has the engine's thread look around.
  void wake() const { wake_.ring(); }

  // The engine's side.

  /// To be waited for; readable until `clearWakes`.
  [[nodiscard]] int descriptor() const { return wake_.descriptor(); }
  void clearWakes() const { wake_.clear(); }
  void begin() EXCLUDES(mutex_);
  [[nodiscard]] bool isStopRequested() const EXCLUDES(mutex_);
  /// The last tickets.
  [[nodiscard]] std::uint64_t flushRequested() const EXCLUDES(mutex_);
  [[nodiscard]] std::uint64_t refreshRequested() const EXCLUDES(mutex_);
  [[nodiscard]] std::vector<std::function<void()>> takeTasks() EXCLUDES(mutex_);
  void stands(bool standing) EXCLUDES(mutex_);
  void flushed(std::uint64_t ticket) EXCLUDES(mutex_);
  void refreshed(std::uint64_t ticket) EXCLUDES(mutex_);
  void ended() EXCLUDES(mutex_);

 private:
  const EventDescriptor wake_;
  mutable Mutex mutex_;
  Condition changed_;
  std::thread::id thread_ GUARDED_BY(mutex_);
  bool stop_ GUARDED_BY(mutex_) = false;
  bool ended_ GUARDED_BY(mutex_) = false;
  bool hangs_ GUARDED_BY(mutex_) = false;
  std::optional<bool> standing_ GUARDED_BY(mutex_);
  std::uint64_t flushRequested_ GUARDED_BY(mutex_) = 0;
  std::uint64_t flushDone_ GUARDED_BY(mutex_) = 0;
  std::uint64_t refreshRequested_ GUARDED_BY(mutex_) = 0;
  std::uint64_t refreshDone_ GUARDED_BY(mutex_) = 0;
  std::vector<std::function<void()>> tasks_ GUARDED_BY(mutex_);
};

}  // namespace platform::fsevents
