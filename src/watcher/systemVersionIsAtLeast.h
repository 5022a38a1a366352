#pragma once

#include <atomic>
#include <cstdint>

namespace kestrine {

/// The operating system's version, asked for with the first question, except that a part which is 0 is asked for again with the next one.
/// Any thread.
class KnownSystemVersion {
 public:
  bool isAtLeast(std::int32_t major, std::int32_t minor);

 private:
  // Two threads may fetch at once; both then store the same number.
  std::atomic<std::int32_t> major_ = 0;
  std::atomic<std::int32_t> minor_ = 0;
};

/// Whether the operating system's version is `major`.`minor` or later, by the one KnownSystemVersion of the process. Any thread.
bool systemVersionIsAtLeast(std::int32_t major, std::int32_t minor);

}  // namespace kestrine
