#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/base/Mutex.h"
#include "platform/fsevents/event/EventClock.h"
#include "platform/fsevents/event/FSEventStreamTypes.h"
#include "platform/fsevents/status/LossNotices.h"

namespace platform::fsevents {

/// What goes from an engine to the stream's callbacks at once.
struct StreamBatch {
  /// Without identifiers until it enters the mailbox.
  std::vector<FSEvent> events;
  /// What the mailbox adds: the notices of the whole stream.
  std::vector<LossNotice> losses;
  /// When the kernel queues of the engine were last known empty (EventClock::now); what is told is not older.
  std::uint64_t knownEmpty = 0;
  /// Everything that had changed before the start of the stream is told with this.
  bool endsHistory = false;
};

/// What a stream and its engines share instead of holding each other, so that an engine whose thread hangs can be left behind: what it
/// offers after that is dropped here.
///
/// Batches are handled one at a time in the order in which they came in. Identifiers are given out as a batch comes in, so they grow in
/// that order although engines work side by side. Of each engine there is room for one batch, waiting or being handled: what comes
/// meanwhile keeps merging in the engine.
///
/// Threads: any thread may call anything; the functions that are given to it are called with its lock held and must not call back.
class StreamMailbox {
 public:
  using EngineNumber = std::uint64_t;

  /// `signal` is called when there is something to handle. Whichever batch comes in takes along what `notices` returns
  /// (Losses::takeNotices), so that they stay in their order although engines work side by side.
  explicit StreamMailbox(std::function<void()> signal, std::function<std::vector<LossNotice>()> notices = {})
      : signal_(std::move(signal)), notices_(std::move(notices)) {}
  StreamMailbox(const StreamMailbox&) = delete;
  StreamMailbox& operator=(const StreamMailbox&) = delete;

  // The engines' side.

  /// A new engine; `free` is called when there is room for its next batch. While it owes its history no HistoryDone is told.
  EngineNumber join(std::shared_ptr<const EventClock::Member> member, std::function<void()> free, bool owesHistory) EXCLUDES(mutex_);
  /// Whether there is room for a batch of the engine.
  [[nodiscard]] bool isFree(EngineNumber engine) const EXCLUDES(mutex_);
  /// Takes a batch in, one per engine; nothing of an engine that has left.
  void offer(EngineNumber engine, StreamBatch batch) EXCLUDES(mutex_);
  /// What somebody else has to tell about an engine that cannot: comes in beside its own.
  void tell(EngineNumber engine, StreamBatch batch) EXCLUDES(mutex_);
  /// The engine cannot tell its history in time, or has none: it owes nothing any longer.
  void excuse(EngineNumber engine) EXCLUDES(mutex_);
  /// The engine ends. What it has offered is handled all the same; what it offers later is dropped.
  void leave(EngineNumber engine) EXCLUDES(mutex_);

  // The stream's side.

  /// HistoryDone is told of this path when all engines that owe their history have told it.
  void expectHistory(std::string path) EXCLUDES(mutex_);
  /// The next batch, which the calling thread handles from now on until it calls `handled`. Nothing while none waits or one is handled.
  [[nodiscard]] std::optional<StreamBatch> take() EXCLUDES(mutex_);
  void handled() EXCLUDES(mutex_);
  /// All engines have left and what waits is dropped.
  void close() EXCLUDES(mutex_);

  /// Whether the calling thread is handling a batch.
  [[nodiscard]] bool isHandling() const EXCLUDES(mutex_);
  [[nodiscard]] bool hasWaiting() const EXCLUDES(mutex_);
  /// Nothing waits and nothing is handled.
  [[nodiscard]] bool isIdle() const EXCLUDES(mutex_);
  /// Waits until nothing is handled, unless the calling thread is the one that handles.
  void waitHandled() EXCLUDES(mutex_);
  /// Waits until nothing waits and nothing is handled, or for `limit`.
  void waitIdle(std::chrono::milliseconds limit) EXCLUDES(mutex_);
  /// The identifier of the last event that was handed over; 0 before the first.
  [[nodiscard]] FSEventStreamEventId latestId() const EXCLUDES(mutex_);

 private:
  struct Slot {
    std::shared_ptr<const EventClock::Member> member;
    std::function<void()> free;
    bool isFree = true;
    bool owesHistory = false;
  };
  struct Letter {
    /// 0 for what somebody else told.
    EngineNumber engine = 0;
    StreamBatch batch;
  };

  void enter(EngineNumber engine, const EventClock::Member& member, StreamBatch batch) REQUIRES(mutex_);
  [[nodiscard]] bool isHistoryComplete() const REQUIRES(mutex_);

  const std::function<void()> signal_;
  const std::function<std::vector<LossNotice>()> notices_;
  mutable Mutex mutex_;
  Condition changed_;
  std::map<EngineNumber, Slot> slots_ GUARDED_BY(mutex_);
  EngineNumber joined_ GUARDED_BY(mutex_) = 0;
  std::deque<Letter> letters_ GUARDED_BY(mutex_);
  std::optional<std::string> awaitedHistory_ GUARDED_BY(mutex_);
  /// Whose batch is handled, and by which thread.
  EngineNumber handledEngine_ GUARDED_BY(mutex_) = 0;
  std::thread::id handler_ GUARDED_BY(mutex_);
  FSEventStreamEventId latestId_ GUARDED_BY(mutex_) = 0;
};

}  // namespace platform::fsevents
