#include "platform/foundation/base/AllSignalsBlocked.h"

#include <pthread.h>

namespace platform {

AllSignalsBlocked::AllSignalsBlocked() noexcept : former_() {
  sigset_t all;
  sigfillset(&all);
  // Fails only for a wrong first argument.
  pthread_sigmask(SIG_SETMASK, &all, &former_);
}

AllSignalsBlocked::~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }

}  // namespace platform
