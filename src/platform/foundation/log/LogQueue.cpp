#include "platform/foundation/log/LogQueue.h"

#include <chrono>
#include <utility>

namespace platform {

void LogQueue::push(LogLine line) {
  {
    const MutexLock lock(mutex_);
    ++pushed_;
    if (next_.lines.size() >= kMostLines || bytes_ + line.text.size() > kMostBytes) {
      ++next_.dropped;
    } else {
      bytes_ += line.text.size();
      next_.lines.push_back(std::move(line));
    }
  }
  hasWork_.notifyOne();
}

void LogQueue::setDestination(const LogDestination& destination) {
  {
    const MutexLock lock(mutex_);
    ++pushed_;
    next_.destination = destination;
  }
  hasWork_.notifyOne();
}

LogQueue::Batch LogQueue::take() {
  MutexLock lock(mutex_);
  while (taken_ == pushed_) hasWork_.wait(lock);
  taken_ = pushed_;
  bytes_ = 0;
  return std::exchange(next_, {});
}

void LogQueue::done() {
  {
    const MutexLock lock(mutex_);
    written_ = taken_;
  }
  hasWritten_.notifyAll();
}

void LogQueue::waitUntilWritten(std::optional<int> limit) {
  MutexLock lock(mutex_);
  const std::uint64_t target = pushed_;
  if (!limit) {
    while (written_ < target) hasWritten_.wait(lock);
    return;
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(*limit);
  while (written_ < target && hasWritten_.waitUntil(lock, end)) {
  }
}

}  // namespace platform
