#include "platform/foundation/preferences/FileSizeSignal.h"

#include <pthread.h>

#include <ctime>

namespace platform {

namespace {

sigset_t signalOfFileSizes() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGXFSZ);
  return set;
}

bool isPending() {
  sigset_t pending;
  return sigpending(&pending) == 0 && sigismember(&pending, SIGXFSZ) == 1;
}

}  // namespace

FileSizeSignalTaken::FileSizeSignalTaken() noexcept : former_() {
  const sigset_t set = signalOfFileSizes();
  pthread_sigmask(SIG_BLOCK, &set, &former_);
  // Nothing that is not blocked waits.
  wasPending_ = sigismember(&former_, SIGXFSZ) == 1 && isPending();
}

FileSizeSignalTaken::~FileSizeSignalTaken() {
  const sigset_t set = signalOfFileSizes();
  if (isExceeded_ && !wasPending_ && isPending()) {
    const timespec atOnce{};
    sigtimedwait(&set, nullptr, &atOnce);
  }
  pthread_sigmask(SIG_SETMASK, &former_, nullptr);
}

}  // namespace platform
