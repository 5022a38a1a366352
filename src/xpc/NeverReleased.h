#pragma once

#include <any>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace kestrine {

/// What the product deliberately never releases: the queue and the handlers of each connection that was destroyed (applications may still
/// refer to them without holding them). Everything of that sort is here and nowhere else, so that a leak checker, which finds it through
/// this one object, takes everything else that nobody owns for the leak that it is.
/// Threads: any.
class NeverReleased {
 public:
  /// The process's one registry; never destroyed itself.
  static NeverReleased& registry();

  NeverReleased(const NeverReleased&) = delete;
  NeverReleased& operator=(const NeverReleased&) = delete;

  /// Keeps `value` until the process ends.
  void keep(std::any value);
  [[nodiscard]] std::size_t count() const;

 private:
  NeverReleased() = default;
  ~NeverReleased() = default;

  mutable std::mutex mutex_;
  std::vector<std::any> kept_;
};

}  // namespace kestrine
