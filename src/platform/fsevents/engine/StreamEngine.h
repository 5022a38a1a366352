#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/fsevents/engine/EngineConfiguration.h"
#include "platform/fsevents/engine/EngineMounts.h"
#include "platform/fsevents/engine/EngineRequests.h"
#include "platform/fsevents/engine/EngineTrees.h"
#include "platform/fsevents/engine/EngineWindow.h"
#include "platform/fsevents/engine/HangWatch.h"
#include "platform/fsevents/engine/StreamMailbox.h"
#include "platform/fsevents/engine/WatchedRoots.h"
#include "platform/fsevents/status/StreamStatus.h"

namespace platform::fsevents {

class EnginePool;

/// What the engines of a stream have in common. Held by each, since one may outlive the stream.
struct EngineShared {
  EngineConfiguration configuration;
  std::shared_ptr<StreamStatus> status;
  std::shared_ptr<StreamMailbox> mailbox;
  std::shared_ptr<HangWatch> watch;
};

/// One place that an engine has for itself, because looking at it may hang.
struct EnginePlace {
  TreeOptions options;
  /// What is mounted below a watched path: it stays while the mount does, and nobody waits for the path to mean something else.
  bool isMount = false;
  /// What is told of it when it stands; 0 for nothing.
  FSEventStreamEventFlags told = 0;
  /// It was there when the stream started: its past is part of the stream's, and what cannot be watched there is an error of the start.
  bool isFromTheStart = false;
  /// WatchedTree::avoid
  std::set<std::string, std::less<>> avoided = {};
};

/// The work of one thread: it empties the kernel's queues, keeps the trees of its watched paths true, and makes batches of what changed. It
/// never waits for the handler, and while nothing happens it sleeps without a time-out.
///
/// A stream has one engine for all that is local, the first, which also follows what is mounted where; and one for each place on a file
/// system that may hang, so that it holds up nobody else.
///
/// Threads: `run` is called once, on a thread of its own that holds the engine; `requests` and `leave` by any thread.
class StreamEngine : public std::enable_shared_from_this<StreamEngine> {
 public:
  /// The first engine of a stream; `pool` makes the others.
  StreamEngine(std::shared_ptr<EngineShared> shared, std::weak_ptr<EnginePool> pool);
  StreamEngine(std::shared_ptr<EngineShared> shared, EnginePlace place);
  ~StreamEngine() { leave(); }
  StreamEngine(const StreamEngine&) = delete;
  StreamEngine& operator=(const StreamEngine&) = delete;

  void run();
  EngineRequests& requests() { return *requests_; }
  /// Ends a walk that is under way, and then the thread.
  void requestStop();
  /// What the engine tells from now on counts for nothing. It may hang and be left behind then.
  void leave();
  /// Nobody waits for its thread: its trees leave alone what others may have lost and found since.
  void leaveBehind() { pulse_->leftBehind = true; }
  /// What the tree of the engine's one place must not look into.
  void avoid(std::set<std::string, std::less<>> mountPoints);
  /// On the engine's thread, of the tree of its one place: something was mounted in it at `relative` or is no longer; it is elsewhere now.
  void coverChanged(const std::string& relative, bool isCovered);
  void relocatePlace(const std::string& reportedPath, const std::string& openPath);

 private:
  using Clock = std::chrono::steady_clock;

  StreamEngine(std::shared_ptr<EngineShared> shared, std::optional<EnginePlace> place, std::weak_ptr<EnginePool> pool);
  bool attachPaths();
  bool attachPlace();
  bool attachRoots(const WatchedRoots::MountFlags& told, std::optional<std::uint64_t> since);
  /// From which time on the past is to be told; nothing when the stream asks for none, or when nobody can tell it (`pastFault_`).
  std::optional<std::uint64_t> pastToTell();
  void endPast();
  void turn();
  void sleep();
  void drainAndProcess();
  void checkRoots(bool foldersWereRenamed = false);
  void followMovedFolders();
  void followMounts(bool foldersWereRenamed);
  void guardRoots();
  void finishFlush(std::uint64_t ticket);
  void offer();
  void answerRefresh();
  /// The first is called by the watching thread.
  void hangs(const std::string& path);
  void answers(const std::string& path);
  void tellAnswered();

  const std::shared_ptr<EngineShared> shared_;
  const std::weak_ptr<EnginePool> pool_;
  const std::shared_ptr<TreePulse> pulse_ = std::make_shared<TreePulse>();
  const std::shared_ptr<EngineRequests> requests_ = std::make_shared<EngineRequests>();
  const std::shared_ptr<HangWatch::Watched> watched_;
  EngineWindow window_;

  // Of the engine's thread alone.
  EngineTrees trees_;
  std::optional<EnginePlace> place_;
  WatchedTree* placeTree_ = nullptr;
  /// Of the watched paths; none for a mount.
  std::unique_ptr<WatchedRoots> roots_;
  /// Of the first engine.
  std::unique_ptr<EngineMounts> mounts_;
  std::optional<Clock::time_point> pauseUntil_;
  std::uint64_t flushDone_ = 0;
  std::string pastFault_;
  /// Paths at which the file system has answered again.
  std::vector<std::string> answered_;
};

}  // namespace platform::fsevents
