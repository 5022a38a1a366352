#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace kestrine::test {

/// No descriptor is to be had by this process while it stands, except in place of one that is closed meanwhile. Threads: one at a time.
class NoDescriptors {
 public:
  NoDescriptors() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(next);
    const rlimit none{static_cast<rlim_t>(next), before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit before_{};
};

}  // namespace kestrine::test
