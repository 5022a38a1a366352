#pragma once

#include <algorithm>
#include <any>
#include <cstddef>
#include <typeinfo>
#include <vector>

#include "platform/foundation/base/Mutex.h"

namespace platform {

/// What is deliberately never released, such as the queue and the handlers of a connection that was destroyed (applications may still refer
/// to them without holding them). Everything of that sort is here and nowhere else, so that a leak checker, which finds it through this one
/// object, takes everything else that nobody owns for the leak that it is.
/// Threads: any.
class NeverReleased {
 public:
  /// The process's one registry; never destroyed itself.
  static NeverReleased& registry();

  NeverReleased(const NeverReleased&) = delete;
  NeverReleased& operator=(const NeverReleased&) = delete;

  /// Keeps `value` until the process ends.
  void keep(std::any value) EXCLUDES(mutex_);
  [[nodiscard]] std::size_t count() const EXCLUDES(mutex_);
  /// How many of them are a `Kind`, as they were handed in.
  template <class Kind>
  [[nodiscard]] std::size_t countOf() const EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return static_cast<std::size_t>(std::ranges::count_if(kept_, [](const std::any& value) { return value.type() == typeid(Kind); }));
  }

 private:
  NeverReleased() = default;
  ~NeverReleased() = default;

  mutable Mutex mutex_;
  std::vector<std::any> kept_ GUARDED_BY(mutex_);
};

}  // namespace platform
