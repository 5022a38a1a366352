#include "tests/support/KernelFilter.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstddef>
#include <thread>

namespace kestrine::test {

namespace {

sock_filter step(unsigned code, unsigned value) { return BPF_STMT(static_cast<unsigned short>(code), value); }
/// Goes on when what was loaded is `value`, else leaves out the next `otherwise` steps.
sock_filter onlyIf(unsigned value, unsigned char otherwise) { return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, otherwise); }
sock_filter load(std::size_t offset) { return step(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offset)); }

std::vector<sock_filter> filterOf(const std::vector<RefusedCall>& calls) {
  const sock_filter loadNumber = load(offsetof(seccomp_data, nr));
  std::vector<sock_filter> steps = {loadNumber};
  for (const RefusedCall& call : calls) {
    const sock_filter refuse = step(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(call.error));
    const auto number = static_cast<unsigned>(call.number);
    if (call.secondArgument) {
      // The lower half of the argument, which comes first.
      const sock_filter loadArgument = load(offsetof(seccomp_data, args) + sizeof(__u64));
      steps.insert(steps.end(), {onlyIf(number, 4), loadArgument, onlyIf(*call.secondArgument, 1), refuse, loadNumber});
    } else {
      steps.insert(steps.end(), {onlyIf(number, 1), refuse});
    }
  }
  steps.push_back(step(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  return steps;
}

/// For the calling thread and those that it makes, for ever.
bool refuse(const std::vector<RefusedCall>& calls) {
  std::vector<sock_filter> steps = filterOf(calls);
  const sock_fprog filter{.len = static_cast<unsigned short>(steps.size()), .filter = steps.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

}  // namespace

bool withRefused(const std::vector<RefusedCall>& calls, const std::function<void()>& block) {
  bool refused = false;
  std::thread([&] {
    refused = refuse(calls);
    if (refused) block();
  }).join();
  return refused;
}

bool withoutThreads(const std::function<void()>& block) {
  return withRefused({{.number = SYS_clone3, .error = EAGAIN}, {.number = SYS_clone, .error = EAGAIN}}, block);
}

}  // namespace kestrine::test
