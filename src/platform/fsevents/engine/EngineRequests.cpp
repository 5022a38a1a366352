#include "platform/fsevents/engine/EngineRequests.h"

#include <utility>

namespace platform::fsevents {
namespace {

/// How long somebody who asks for an identifier waits for an engine to look.
constexpr std::chrono::milliseconds kRefreshPatience(200);

}  // namespace

void EngineRequests::requestStop() {
  {
    const MutexLock lock(mutex_);
    stop_ = true;
    changed_.notifyAll();
  }
  wake();
}

std::uint64_t EngineRequests::requestFlush() {
  std::uint64_t ticket = 0;
  {
    const MutexLock lock(mutex_);
    ticket = ++flushRequested_;
  }
  wake();
  return ticket;
}

bool EngineRequests::waitFlushed(std::uint64_t ticket, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  MutexLock lock(mutex_);
  while (flushDone_ < ticket && !stop_ && !ended_ && !hangs_) {
    if (!changed_.waitUntil(lock, deadline)) return false;
  }
  return true;
}

void EngineRequests::refresh() {
  const auto deadline = Clock::now() + kRefreshPatience;
  MutexLock lock(mutex_);
  if (std::this_thread::get_id() == thread_) return;
  const std::uint64_t ticket = ++refreshRequested_;
  wake();
  while (refreshDone_ < ticket && !stop_ && !ended_ && !hangs_) {
    if (!changed_.waitUntil(lock, deadline)) return;
  }
}

void EngineRequests::post(std::function<void()> task) {
  {
    const MutexLock lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  wake();
}

void EngineRequests::setHanging(bool hangs) {
  const MutexLock lock(mutex_);
  hangs_ = hangs;
  changed_.notifyAll();
}

std::optional<bool> EngineRequests::waitStanding() {
  MutexLock lock(mutex_);
  while (!standing_ && !hangs_ && !ended_) changed_.wait(lock);
  return ended_ && !standing_ ? std::optional(false) : standing_;
}

bool EngineRequests::waitEnded(Clock::time_point deadline) {
  MutexLock lock(mutex_);
  while (!ended_) {
    if (!changed_.waitUntil(lock, deadline)) return ended_;
  }
  return true;
}

bool EngineRequests::hasEnded() const {
  const MutexLock lock(mutex_);
  return ended_;
}

void EngineRequests::begin() {
  const MutexLock lock(mutex_);
  thread_ = std::this_thread::get_id();
}

bool EngineRequests::isStopRequested() const {
  const MutexLock lock(mutex_);
  return stop_;
}

std::uint64_t EngineRequests::flushRequested() const {
  const MutexLock lock(mutex_);
  return flushRequested_;
}

std::uint64_t EngineRequests::refreshRequested() const {
  const MutexLock lock(mutex_);
  return refreshRequested_;
}

std::vector<std::function<void()>> EngineRequests::takeTasks() {
  const MutexLock lock(mutex_);
  return std::exchange(tasks_, {});
}

void EngineRequests::stands(bool standing) {
  const MutexLock lock(mutex_);
  standing_ = standing;
  changed_.notifyAll();
}

void EngineRequests::flushed(std::uint64_t ticket) {
  const MutexLock lock(mutex_);
  flushDone_ = ticket;
  changed_.notifyAll();
}

void EngineRequests::refreshed(std::uint64_t ticket) {
  const MutexLock lock(mutex_);
  if (refreshDone_ == ticket) return;
  refreshDone_ = ticket;
  changed_.notifyAll();
}

void EngineRequests::ended() {
  const MutexLock lock(mutex_);
  ended_ = true;
  changed_.notifyAll();
}

}  // namespace platform::fsevents
