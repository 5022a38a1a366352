#include "platform/foundation/base/ProcessorTime.h"

#include <ctime>

namespace platform {

std::chrono::nanoseconds threadProcessorTime() {
  timespec used{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

}  // namespace platform
