#include "tests/support/Eventually.h"

#include <cstdio>
#include <cstdlib>
#include <string>
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
  const std::string why = "under the sanitizer";
#else
  const char* const said = std::getenv("KESTRINE_SHORTENED");
  const std::string why = said == nullptr ? "" : said;
#endif
  if (why.empty()) return full;
  std::printf("shortened %s: %d instead of %d\n", why.c_str(), shortened, full);
  return shortened;
}

}  // namespace kestrine::test
