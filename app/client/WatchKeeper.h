#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <variant>

#include "app/client/FileWatcherClient.h"
#include "app/client/ServiceLifetime.h"
#include "platform/concurrency/thread/LoopThread.h"
#include "platform/foundation/base/Mutex.h"

namespace kestrine {

/// Keeps a watch that an application wants: sleeps until the service dies, and asks again then. On a thread of its own, which begins with
/// the first watch to keep.
///
/// | state   | the process ends     | the time to ask comes                                                        | another is to be kept
/// |
/// |---------|----------------------|------------------------------------------------------------------------------|-----------------------|
/// | Idle    | -                    | -                                                                            | Keeping | | Keeping |
/// Asking, tells Died   | -                                                                            | Keeping               | | Asking
/// | Asking, tells Died   | Keeping, Asking (no service, or no answer) or GivenUp; tells what came of it | Asking: it finds that | |
/// GivenUp | Asking, tells Died   | -                                                                            | Keeping               |
///
/// "Ends" includes a process that is to be kept and has gone already. GivenUp is for what asking again would not mend: no usable base
/// folder, or a service that says that it cannot watch it.
///
/// Threads: any thread may call anything; the handler is called on the keeper's own, and destruction waits for it and for a request.
class WatchKeeper {
 public:
  using Event = FileWatcherClient::ServiceEvent;
  using Handler = std::function<void(const Event& event)>;

  WatchKeeper() = default;
  ~WatchKeeper();
  WatchKeeper(const WatchKeeper&) = delete;
  WatchKeeper& operator=(const WatchKeeper&) = delete;

  /// For the events from now on. What leaves it is said in the log and ends there.
  void setHandler(Handler handler);
  /// From now on the watch that `process` has is wanted. Throws std::system_error when the system has no thread left.
  void keep(pid_t process) EXCLUDES(mutex_);

 private:
  struct Idle {};
  struct Keeping {};
  struct Asking {
    std::shared_ptr<platform::RunLoopTimer> next;
  };
  struct GivenUp {};
  using State = std::variant<Idle, Keeping, Asking, GivenUp>;

  /// What runs on the thread begins with this.
  void assertOnThread() const ASSERT_CAPABILITY(onThread_) {}
  void begin() REQUIRES(mutex_);
  /// Leaves the state that it is in, and its timer.
  void enter(State state) REQUIRES(onThread_);
  void waitForEndOf(pid_t process) REQUIRES(onThread_);
  void died(pid_t process) REQUIRES(onThread_);
  void askLater() REQUIRES(onThread_);
  void askAgain() REQUIRES(onThread_);
  void tell(Event::Kind kind, const std::string& text);

  platform::Guarded<std::shared_ptr<const Handler>> handler_;

  platform::ThreadRole onThread_;
  State state_ GUARDED_BY(onThread_);
  std::unique_ptr<ServiceLifetime> lifetime_ GUARDED_BY(onThread_);
  std::chrono::steady_clock::time_point lastRequest_ GUARDED_BY(onThread_);
  /// In seconds, before the next request.
  double delay_ GUARDED_BY(onThread_) = 0;

  platform::Mutex mutex_;
  // Last, since what it runs uses the other members.
  std::unique_ptr<platform::LoopThread> thread_ GUARDED_BY(mutex_);
};

}  // namespace kestrine
