#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace kestrine::test {

/// Runs `body` on a thread for which, and for whose child processes, the kernel refuses the system calls with EPERM, as containers do.
inline void withRefusedCalls(const std::vector<long>& calls, const std::function<void()>& body) {
  std::thread([&] {
    std::vector<sock_filter> program = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0)};
    for (const long call : calls) {
      program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call), 0, 1));
      program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    // A filter is a thread's own, and its children inherit it (seccomp(2)).
    const bool refused = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
    if (!refused) throw std::runtime_error("seccomp");
    body();
  }).join();
}

inline const std::vector<long> kFanotify = {SYS_fanotify_init};
inline const std::vector<long> kAllSources = {SYS_fanotify_init, SYS_inotify_init, SYS_inotify_init1};

}  // namespace kestrine::test
