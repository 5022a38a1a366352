#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>

#include "platform/foundation/base/FileHandle.h"

namespace platform {
class RunLoop;
class RunLoopItem;
}  // namespace platform

namespace kestrine {

/// Tells when the service process ends, however it ends, through a descriptor of that process (pidfd_open(2)): nothing is asked
/// repeatedly, and a process that later gets the same number is not mistaken for it. Where the kernel refuses such a descriptor, it looks
/// once a second.
/// Threads: all on the thread of the run loop.
class ServiceLifetime {
 public:
  using Handler = std::function<void(pid_t process)>;

  ServiceLifetime(std::shared_ptr<platform::RunLoop> loop, Handler began, Handler ended);
  ~ServiceLifetime();
  ServiceLifetime(const ServiceLifetime&) = delete;
  ServiceLifetime& operator=(const ServiceLifetime&) = delete;

  /// Looks who is the service now: calls `began` for a process that was not known yet. Cheap; where a process is known already, nothing.
  void look();
  /// 0 when none is known to run.
  [[nodiscard]] pid_t process() const { return process_; }

 private:
  std::shared_ptr<platform::RunLoopItem> waitForEnd();
  void ended();

  std::shared_ptr<platform::RunLoop> loop_;
  Handler began_;
  Handler ended_;
  pid_t process_ = 0;
  platform::FileHandle descriptor_;
  std::shared_ptr<platform::RunLoopItem> item_;
};

/// The process that is the service now.
struct ServiceProcessHandle {
  /// 0 when there is none.
  pid_t process = 0;
  /// Its pidfd; not open where the kernel refuses one.
  platform::FileHandle descriptor{};
};
ServiceProcessHandle openServiceProcess();

}  // namespace kestrine
