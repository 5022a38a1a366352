#pragma once

#include <functional>
#include <optional>
#include <vector>

namespace kestrine::test {

/// A system call that the kernel refuses.
struct RefusedCall {
  /// SYS_... of syscall(2).
  long number;
  /// What the caller finds in errno.
  int error;
  /// Only with this second argument, such as the command of fcntl(2).
  std::optional<unsigned> secondArgument = std::nullopt;
};

/// Runs `block` on a thread of its own for which, and for the threads and processes that it makes, the kernel refuses these calls. False,
/// and nothing was run, where the kernel or a sandbox takes no such filter (seccomp(2)).
bool withRefused(const std::vector<RefusedCall>& calls, const std::function<void()>& block);

/// The same for making further threads: EAGAIN, as when there are too many.
bool withoutThreads(const std::function<void()>& block);

}  // namespace kestrine::test
