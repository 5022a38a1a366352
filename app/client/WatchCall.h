#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/base/Mutex.h"

namespace platform {
class XPCConnection;
}

namespace kestrine {

/// The service, asked once to watch, over a connection of this object's own: what is not watching when it is destroyed never will be.
/// Threads: one at a time.
class WatchCall {
 public:
  /// Starts the service where it does not run. The call has no reply.
  WatchCall();
  ~WatchCall();
  WatchCall(const WatchCall&) = delete;
  WatchCall& operator=(const WatchCall&) = delete;

  /// Sleeps for `duration` or until the connection has ended; then why it has.
  [[nodiscard]] std::optional<std::string> waitForEnd(std::chrono::milliseconds duration) const;

 private:
  /// Shared with the connection's handlers, which may outlive this.
  class End {
   public:
    void tell(std::string reason) EXCLUDES(mutex_);
    std::optional<std::string> waitFor(std::chrono::milliseconds duration) EXCLUDES(mutex_);

   private:
    platform::Mutex mutex_;
    platform::Condition told_;
    std::optional<std::string> reason_ GUARDED_BY(mutex_);
  };

  std::shared_ptr<End> end_ = std::make_shared<End>();
  std::shared_ptr<platform::XPCConnection> connection_;
};

}  // namespace kestrine
