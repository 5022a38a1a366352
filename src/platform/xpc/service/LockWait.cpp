#include "platform/xpc/service/LockWait.h"

#include <utility>

namespace platform::xpc {

LockWait::LockWait(LockFile lock, std::chrono::milliseconds limit, std::function<void(int error)> done)
    : lock_(std::move(lock)), deadline_(std::chrono::steady_clock::now() + limit), done_(std::move(done)) {}

LockWait::~LockWait() {
  if (retry_) retry_->invalidate();
}

void LockWait::begin(RunLoop& loop) {
  if (attempt()) return;
  const double pause = std::chrono::duration<double>(kLockRetry).count();
  retry_ = RunLoopTimer::create(pause, pause, [this] { attempt(); });
  loop.add(retry_);
}

bool LockWait::attempt() {
  const int error = lock_.tryLock();
  if (error == LockFile::kHeldBySomebodyElse && std::chrono::steady_clock::now() < deadline_) return false;
  if (retry_) retry_->invalidate();
  done_(error);
  lock_.unlock();
  return true;
}

}  // namespace platform::xpc
