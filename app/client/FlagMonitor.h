#pragma once

#include <functional>
#include <memory>
#include <string>

#include "app/client/StatusFlag.h"

namespace platform {
class FSEventStream;
class RunLoop;
class RunLoopSource;
}  // namespace platform

namespace kestrine {

/// Takes the flag each time the service raises it, and tells. It does not ask again and again: it watches the preferences folder, and
/// sleeps while nothing is written there.
///
/// One that is raised already is told at once. The flag is taken before the call, so a change made during the call is told by another.
/// Threads: made and used on the thread of its run loop, which must be running for anything to be told. Destroying it leaves the flag as it
/// is.
class FlagMonitor {
 public:
  using Handler = std::function<void(const FlagReading& reading)>;

  /// `raised` gets each raised flag; `looked`, when set, is called each time the preferences of the service have been written.
  FlagMonitor(std::shared_ptr<platform::RunLoop> loop, Handler raised, std::function<void()> looked = {});
  ~FlagMonitor();
  FlagMonitor(const FlagMonitor&) = delete;
  FlagMonitor& operator=(const FlagMonitor&) = delete;

  /// False when the preferences folder cannot be watched; `error` says why.
  [[nodiscard]] bool start();
  [[nodiscard]] std::string error() const;

 private:
  void look();

  std::shared_ptr<platform::RunLoop> loop_;
  Handler raised_;
  std::function<void()> looked_;
  std::unique_ptr<platform::FSEventStream> stream_;
  std::shared_ptr<platform::RunLoopSource> firstLook_;
};

}  // namespace kestrine
