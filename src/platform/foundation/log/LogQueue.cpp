#include "platform/foundation/log/LogQueue.h"

#include <chrono>
#include <utility>

namespace platform {

void LogQueue::push(LogLine line) {
  {
    const std::lock_guard lock(mutex_);
    ++pushed_;
    if (next_.lines.size() >= kMostLines || bytes_ + line.text.size() > kMostBytes) {
      ++next_.dropped;
    } else {
      bytes_ += line.text.size();
      next_.lines.push_back(std::move(line));
    }
  }
  hasWork_.notify_one();
}

void LogQueue::setDestination(const LogDestination& destination) {
  {
    const std::lock_guard lock(mutex_);
    ++pushed_;
    next_.destination = destination;
  }
  hasWork_.notify_one();
}

LogQueue::Batch LogQueue::take() {
  std::unique_lock lock(mutex_);
  hasWork_.wait(lock, [this] { return taken_ != pushed_; });
  taken_ = pushed_;
  bytes_ = 0;
  return std::exchange(next_, {});
}

void LogQueue::done() {
  {
    const std::lock_guard lock(mutex_);
    written_ = taken_;
  }
  hasWritten_.notify_all();
}

void LogQueue::waitUntilWritten(std::optional<int> limit) {
  std::unique_lock lock(mutex_);
  const auto isWritten = [this, target = pushed_] { return written_ >= target; };
  if (limit) {
    hasWritten_.wait_for(lock, std::chrono::seconds(*limit), isWritten);
  } else {
    hasWritten_.wait(lock, isWritten);
  }
}

}  // namespace platform
