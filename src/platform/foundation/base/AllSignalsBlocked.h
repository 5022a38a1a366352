#pragma once

#include <csignal>

namespace platform {

/// Blocks all signals of the calling thread until its end. A thread that is made meanwhile has them blocked from its first moment on, so
/// that signals come to the process's own threads and not to ours. Used by one thread.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() noexcept;
  ~AllSignalsBlocked();
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t former_;
};

}  // namespace platform
