#pragma once

#include <atomic>
#include <memory>

namespace kestrine {

/// Whoever asked for a watch, as far as the watch cares: whether they are still there. Threads: any.
class WatchClient {
 public:
  [[nodiscard]] bool isGone() const { return isGone_; }
  /// Their connection has closed: has `Watches` look whether what they asked for is still needed. Once; does not wait.
  static void leave(const std::shared_ptr<WatchClient>& client);

 private:
  std::atomic<bool> isGone_{false};
};

}  // namespace kestrine
