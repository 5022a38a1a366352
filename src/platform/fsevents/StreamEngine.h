#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/fsevents/Coalescer.h"
#include "platform/fsevents/EventClock.h"
#include "platform/fsevents/FSEventStream.h"
#include "platform/fsevents/RootMonitor.h"
#include "platform/fsevents/StreamStatus.h"
#include "platform/fsevents/WatchedTree.h"

namespace platform::fsevents {

/// What a stream was created with.
struct EngineConfiguration {
  std::vector<std::string> paths;
  std::vector<std::string> exclusions;
  FSEventStreamEventId sinceWhen = kFSEventStreamEventIdSinceNow;
  std::chrono::nanoseconds latency{0};
  FSEventStreamCreateFlags flags = 0;
  FSEventStream::Source source = FSEventStream::Source::Automatic;
};

/// Where the engine's batches go: room for one, so that what comes while the handler is busy keeps merging.
class BatchReceiver {
 public:
  virtual ~BatchReceiver() = default;
  /// False while a batch waits or is being handled; `engineMayOffer` of the engine is called when that ends.
  virtual bool isFree() = 0;
  virtual void offer(std::vector<FSEvent> batch) = 0;
};

/// The thread that empties the kernel's queues, keeps the trees of all watched paths true, and makes batches of what changed. It never
/// waits for the handler, and while nothing happens it sleeps without a time-out. Threads: any thread may call anything; the constructor's
/// caller owns it. `stop` must not be called on the engine's own thread.
class StreamEngine {
 public:
  StreamEngine(EngineConfiguration configuration, StreamStatus& status, BatchReceiver& receiver);
  ~StreamEngine();
  StreamEngine(const StreamEngine&) = delete;
  StreamEngine& operator=(const StreamEngine&) = delete;

  /// Begins to watch and returns when the watch stands; false, with the reason in the status, when it cannot.
  bool start();
  /// Ends the thread and lets go of everything.
  void stop();

  /// The receiver is free again.
  void engineMayOffer();
  /// Asks for everything that has changed until now; returns a ticket for `isFlushed`.
  std::uint64_t requestFlush();
  /// Whether everything asked for by the ticket has been offered. Waits for that, or for `limit`.
  bool waitFlushed(std::uint64_t ticket, std::chrono::milliseconds limit);

 private:
  using Clock = std::chrono::steady_clock;

  void run();
  bool attachAll();
  void turn();
  void sleep();
  void drainAndProcess();
  void checkRoots();
  void guardRoots();
  void planCheck();
  void attachTree(std::size_t index, FSEventStreamEventFlags report, FSEventStreamEventFlags rootFlags);
  void refused(std::size_t index, int error);
  [[nodiscard]] const char* lastSource() const;
  void giveUpWindow();
  void tidyTrees();
  void offerIfDue();
  void offer();
  void answerRefresh();
  [[nodiscard]] Clock::time_point dueTime() const;
  [[nodiscard]] bool hasSomething() const { return historyPending_ || !coalescer_.empty(); }
  void refreshClock();
  void wake() const;

  EngineConfiguration configuration_;
  StreamStatus& status_;
  BatchReceiver& receiver_;
  FileHandle wake_;
  std::thread thread_;

  // Of the engine's thread alone.
  Coalescer coalescer_;
  std::vector<std::unique_ptr<WatchedTree>> trees_;
  std::unique_ptr<RootMonitor> monitor_;
  std::vector<RootIdentity> identities_;
  /// When a path that the kernel refuses to watch was last told of.
  std::map<std::size_t, Clock::time_point> refusedTold_;
  bool historyPending_ = false;
  /// When all queues were last known empty and applied, and up to when everything has been handled by the receiver.
  std::uint64_t knownEmpty_ = 0;
  std::uint64_t deliveredUpTo_ = 0;
  bool waitingTold_ = false;
  std::optional<Clock::time_point> again_;
  std::optional<Clock::time_point> pauseUntil_;
  std::optional<Clock::time_point> checkRootsAt_;
  std::chrono::milliseconds settleBackoff_{0};
  std::optional<Clock::time_point> tidyAt_;
  std::chrono::milliseconds tidyBackoff_{0};
  Clock::time_point lastOffer_{};
  bool offeredOnce_ = false;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool stop_ = false;
  std::optional<bool> standing_;
  std::uint64_t flushRequested_ = 0;
  std::uint64_t flushDone_ = 0;
  std::uint64_t refreshRequested_ = 0;
  std::uint64_t refreshDone_ = 0;

  std::unique_ptr<EventClock::Member> clock_;
};

}  // namespace platform::fsevents
