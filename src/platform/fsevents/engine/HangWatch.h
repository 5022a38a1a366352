#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/base/EventDescriptor.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/fsevents/tree/TreeOptions.h"

namespace platform::fsevents {

/// Notices that a thread which looks at the file system does not get on: a server or a program behind a mount that does not answer holds it
/// inside a system call without end. A timer runs while somebody is inside (timerfd_create(2)), and a thread of its own sleeps until one
/// has run out: watching wakes nobody.
///
/// Threads: any thread may call anything.
class HangWatch {
 public:
  using Clock = std::chrono::steady_clock;
  /// As long as a disk may take to spin up, and a network file system to find a path again.
  static constexpr std::chrono::milliseconds kPatience{5000};
  /// What the environment variable KESTRINE_FSEVENTS_PATIENCE says, in seconds ("30", "0.5") from a tenth of one to an hour; else
  /// kPatience.
  static std::chrono::milliseconds chosenPatience();

  /// One watched thread. It says when it goes inside and comes back; its pulse says that it gets on while it is there.
  class Watched {
   public:
    /// `hangs(path)` is called by the watching thread, once for each time that the watched one hangs, and `answers(path)` by the watched
    /// one when it is back from there. Never both at once; `hangs` with the watch's lock held.
    Watched(std::shared_ptr<TreePulse> pulse, std::function<void(const std::string& path)> hangs,
            std::function<void(const std::string& path)> answers);

   private:
    friend class HangWatch;
    const std::shared_ptr<TreePulse> pulse_;
    /// None where the system has no descriptor left: then nobody notices.
    const FileHandle timer_;
    const std::function<void(const std::string& path)> hangs_;
    const std::function<void(const std::string& path)> answers_;
    // All of the following belong to the watch's mutex.
    std::string path_;
    int depth_ = 0;
    bool isHanging_ = false;
    std::uint64_t steps_ = 0;
    Clock::time_point since_{};
  };

  explicit HangWatch(Clock::duration patience = kPatience);
  ~HangWatch() { stop(); }
  HangWatch(const HangWatch&) = delete;
  HangWatch& operator=(const HangWatch&) = delete;

  void add(const std::shared_ptr<Watched>& watched) EXCLUDES(mutex_);
  void remove(const std::shared_ptr<Watched>& watched) EXCLUDES(mutex_);
  /// Ends the watching thread; nobody is told to hang any longer. Not from within `hangs`.
  void stop() EXCLUDES(mutex_);

  /// The watched thread looks at the file system at `path` until the scope ends. Scopes may nest: the outer path counts.
  class Inside {
   public:
    Inside(HangWatch& watch, Watched& watched, const std::string& path) : watch_(watch), watched_(watched) { watch_.enter(watched_, path); }
    ~Inside() { watch_.leave(watched_); }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

   private:
    HangWatch& watch_;
    Watched& watched_;
  };

 private:
  void enter(Watched& watched, const std::string& path) EXCLUDES(mutex_);
  void leave(Watched& watched) EXCLUDES(mutex_);
  void run() EXCLUDES(mutex_);
  /// The timer has run out.
  void look(Watched& watched) REQUIRES(mutex_);
  void setTimer(const Watched& watched, Clock::duration time) const;

  const Clock::duration patience_;
  const EventDescriptor wake_{std::nothrow};
  Mutex mutex_;
  std::vector<std::shared_ptr<Watched>> watched_ GUARDED_BY(mutex_);
  std::thread thread_ GUARDED_BY(mutex_);
  bool stop_ GUARDED_BY(mutex_) = false;
};

}  // namespace platform::fsevents
