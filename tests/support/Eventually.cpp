#include "tests/support/Eventually.h"

#include <cstdio>
#include <thread>

namespace kestrine::test {

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

int longOrShort(int full, int shortened) {
#ifdef KESTRINE_SANITIZED
  std::printf("shortened under the sanitizer: %d instead of %d\n", shortened, full);
  return shortened;
#else
  static_cast<void>(shortened);
  return full;
#endif
}

}  // namespace kestrine::test
