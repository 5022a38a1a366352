#pragma once

#include <sys/syscall.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <vector>

#include "tests/support/KernelFilter.h"

namespace kestrine::test {

/// Runs `body` on a thread for which, and for whose child processes, the kernel refuses the system calls with EPERM, as containers do.
inline void withRefusedCalls(const std::vector<long>& calls, const std::function<void()>& body) {
  std::vector<RefusedCall> refused;
  refused.reserve(calls.size());
  for (const long call : calls) refused.push_back({.number = call, .error = EPERM});
  if (!withRefused(refused, body)) throw std::runtime_error("seccomp");
}

inline const std::vector<long> kFanotify = {SYS_fanotify_init};
inline const std::vector<long> kAllSources = {SYS_fanotify_init, SYS_inotify_init, SYS_inotify_init1};

}  // namespace kestrine::test
