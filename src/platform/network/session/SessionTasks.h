#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "platform/foundation/base/Mutex.h"
#include "platform/network/session/URLSessionTask.h"

// Internal to the network room.
namespace platform::network {

/// The book that a session keeps of its tasks, and so of its own end: that has come when the session was invalidated and no task runs.
/// Owned by the session; keeps no task. Threads: any.
class SessionTasks {
 public:
  using Task = std::shared_ptr<URLSessionTask>;

  /// `ended` is called once, with no lock held.
  explicit SessionTasks(std::function<void()> ended) : ended_(std::move(ended)) {}

  /// Enters the task that `make` makes for the next identifier, from 1; `make` may not come back here. Throws
  /// Exception(NSInvalidArgumentException) when the session has been invalidated.
  Task add(const std::function<Task(std::uint64_t identifier)>& make) EXCLUDES(mutex_);
  /// The task has gone.
  void forget(std::uint64_t identifier) EXCLUDES(mutex_);
  /// A task was resumed, or cancelled before it was.
  void began() EXCLUDES(mutex_);
  /// After the last word on such a task was said.
  void done() EXCLUDES(mutex_);

  /// No more tasks from now on.
  void invalidate() EXCLUDES(mutex_);
  /// The same for somebody who cancels the tasks that there are, all that somebody still holds, and calls `invalidate` after that.
  std::vector<Task> invalidateAndList() EXCLUDES(mutex_);

  /// For the order of locks only.
  Mutex& mutex() RETURN_CAPABILITY(mutex_) { return mutex_; }

 private:
  void tellIfEnded() EXCLUDES(mutex_);

  const std::function<void()> ended_;
  Mutex mutex_;
  std::uint64_t lastIdentifier_ GUARDED_BY(mutex_) = 0;
  bool invalidated_ GUARDED_BY(mutex_) = false;
  bool toldEnd_ GUARDED_BY(mutex_) = false;
  /// Begun and not done.
  std::size_t running_ GUARDED_BY(mutex_) = 0;
  std::map<std::uint64_t, std::weak_ptr<URLSessionTask>> tasks_ GUARDED_BY(mutex_);
};

}  // namespace platform::network
