#include "platform/foundation/process/NeverReleased.h"

#include <utility>

namespace platform {

NeverReleased& NeverReleased::registry() {
  static auto& one = *new NeverReleased;
  return one;
}

void NeverReleased::keep(std::any value) {
  const MutexLock lock(mutex_);
  kept_.push_back(std::move(value));
}

std::size_t NeverReleased::count() const {
  const MutexLock lock(mutex_);
  return kept_.size();
}

}  // namespace platform
