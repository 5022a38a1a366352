#pragma once

#include <atomic>
#include <cstdint>

namespace kestrine {

/// The operating system's version as it was when it was first asked for; a part which is 0 is asked for again each time. Threads: any.
class KnownSystemVersion {
 public:
  [[nodiscard]] bool isAtLeast(std::int32_t major, std::int32_t minor);

 private:
  // Two threads may ask at once; both then store the same number.
  std::atomic<std::int32_t> major_ = 0;
  std::atomic<std::int32_t> minor_ = 0;
};

/// Whether the operating system's version is `major`.`minor` or later, as far as this process knows it. Any thread.
bool systemVersionIsAtLeast(std::int32_t major, std::int32_t minor);

}  // namespace kestrine
