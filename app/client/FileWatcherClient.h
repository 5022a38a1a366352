#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "app/client/WatchStart.h"

namespace kestrine {

class WatchKeeper;

/// The folder-watching service, as an application uses it:
///
///     kestrine::FileWatcherClient watcher;
///     watcher.setBasePath("/home/me/Documents");           // the folder "Kestrine" in it is watched
///     const auto start = watcher.startWatching();
///     if (!start.stands()) return complain(start.text);
///     for (;;) {
///       if (watcher.waitForFlag(std::chrono::minutes(5))) synchronise();
///     }
///
/// The service raises one flag for any number of changes. Waiting for it takes it, that is, resets it, before the call returns, so what
/// changes while the application synchronises raises it again and nothing is missed. The watch goes on when the client is destroyed.
///
/// When the service process dies after a watch was started, the client says so to the event handler and asks again, which starts the
/// service anew; when that keeps failing it waits longer each time, up to a minute. A service that was stopped on purpose is asked again
/// too, as long as a client wants its watch.
///
/// Threads: any thread may call anything; `waitForFlag` runs the calling thread's run loop. The event handler is called on a thread of the
/// client's own, which has all signals blocked, and must not destroy the client. Destroying it may wait for a request of that thread, up to
/// ten seconds.
class FileWatcherClient {
 public:
  /// What happened to the service since the watch was started.
  struct ServiceEvent {
    enum class Kind { Died, WatchingAgain, StillNotWatching };
    Kind kind;
    std::string text;
  };

  FileWatcherClient();
  ~FileWatcherClient();
  FileWatcherClient(const FileWatcherClient&) = delete;
  FileWatcherClient& operator=(const FileWatcherClient&) = delete;

  /// Stores the folder in whose folder "Kestrine" the user's files are: an absolute path, whatever bytes its names are made of. Watches
  /// that stand are not moved. False, with the reason in the log, when it can never be a folder or the preferences cannot be written.
  bool setBasePath(const std::string& path);

  /// Starts the service where it does not run and asks it to watch; returns when the watch stands or has failed.
  WatchStart startWatching(std::chrono::milliseconds limit = std::chrono::seconds(60));

  /// Waits, asleep, until the flag is raised, takes it and returns true; false when it was not raised within `limit`. Throws
  /// std::runtime_error when the flag cannot be watched or cannot be reset.
  bool waitForFlag(std::chrono::milliseconds limit);
  /// Takes the flag if it is raised, without waiting. Throws as waitForFlag.
  bool takeFlag();

  /// For the events from now on, so best set before `startWatching`; a call of the former one may still be under way. What leaves it, of
  /// whatever type, is said in the log and ends there.
  void setEventHandler(std::function<void(const ServiceEvent&)> handler);

 private:
  std::unique_ptr<WatchKeeper> keeper_;
};

}  // namespace kestrine
