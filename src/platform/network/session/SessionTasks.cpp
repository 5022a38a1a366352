#include "platform/network/session/SessionTasks.h"

#include <utility>

#include "platform/foundation/base/Exception.h"

namespace platform::network {

SessionTasks::Task SessionTasks::add(const std::function<Task(std::uint64_t identifier)>& make) {
  const MutexLock lock(mutex_);
  if (invalidated_) throw Exception(NSInvalidArgumentException, "a task was made in a session that has been invalidated");
  auto task = make(++lastIdentifier_);
  tasks_.emplace(lastIdentifier_, task);
  return task;
}

void SessionTasks::forget(std::uint64_t identifier) {
  const MutexLock lock(mutex_);
  tasks_.erase(identifier);
}

void SessionTasks::began() {
  const MutexLock lock(mutex_);
  ++running_;
}

void SessionTasks::done() {
  {
    const MutexLock lock(mutex_);
    --running_;
  }
  tellIfEnded();
}

void SessionTasks::invalidate() {
  {
    const MutexLock lock(mutex_);
    invalidated_ = true;
  }
  tellIfEnded();
}

std::vector<SessionTasks::Task> SessionTasks::invalidateAndList() {
  std::vector<Task> tasks;
  const MutexLock lock(mutex_);
  invalidated_ = true;
  for (const auto& [identifier, weak] : tasks_) {
    if (auto task = weak.lock()) tasks.push_back(std::move(task));
  }
  return tasks;
}

void SessionTasks::tellIfEnded() {
  {
    const MutexLock lock(mutex_);
    if (!invalidated_ || running_ > 0 || std::exchange(toldEnd_, true)) return;
  }
  ended_();
}

}  // namespace platform::network
