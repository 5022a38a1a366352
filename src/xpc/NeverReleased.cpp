#include "xpc/NeverReleased.h"

#include <utility>

namespace kestrine {

NeverReleased& NeverReleased::registry() {
  static auto& one = *new NeverReleased;
  return one;
}

void NeverReleased::keep(std::any value) {
  const std::lock_guard lock(mutex_);
  kept_.push_back(std::move(value));
}

std::size_t NeverReleased::count() const {
  const std::lock_guard lock(mutex_);
  return kept_.size();
}

}  // namespace kestrine
