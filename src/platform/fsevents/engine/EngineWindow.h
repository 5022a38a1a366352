#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/fsevents/engine/EngineConfiguration.h"
#include "platform/fsevents/engine/StreamMailbox.h"
#include "platform/fsevents/event/Coalescer.h"
#include "platform/fsevents/event/EventClock.h"
#include "platform/fsevents/status/StreamStatus.h"
#include "platform/fsevents/tree/TreeOptions.h"

namespace platform::fsevents {

/// What an engine has to tell: collects it, knows when it is due, and hands it to the mailbox; and tells the clock of identifiers up to
/// when everything has been delivered. Threads: owned by its engine and used by the engine's thread; `leave` by any.
class EngineWindow {
 public:
  using Clock = std::chrono::steady_clock;

  /// `refresh` is for the clock (EventClock::Member), `free` for the mailbox (StreamMailbox::join).
  EngineWindow(const EngineConfiguration& configuration, std::shared_ptr<StreamStatus> status, std::shared_ptr<StreamMailbox> mailbox,
               bool owesHistory, std::function<void()> refresh, std::function<void()> free);
  EngineWindow(const EngineWindow&) = delete;
  EngineWindow& operator=(const EngineWindow&) = delete;

  /// Where the trees put their changes.
  Coalescer& coalescer() { return coalescer_; }
  /// What stands for a tree, and where its items are looked at. Again when the tree has another path or has become another kind of item.
  void setTree(std::uint32_t number, const TreeOptions& options, FSEventStreamEventFlags kind);
  void removeTree(std::uint32_t number);

  /// All kernel queues were read to their end and applied after `time` was taken (EventClock::now).
  void setKnownEmpty(std::uint64_t time) { knownEmpty_ = time; }
  /// What was to be told of the past is in the window: the next batch says so and is due at once.
  void endHistory() { endsHistory_ = owesHistory_; }

  /// Begins the losses that the window's bound has caused. At the end of each turn.
  void collect();
  [[nodiscard]] bool hasSomething() const { return endsHistory_ || !coalescer_.empty() || status_->losses().hasNotices(); }
  [[nodiscard]] bool isFree() const { return mailbox_->isFree(number_); }
  /// Whether there is something that is due and a place for it.
  [[nodiscard]] bool isDue() const { return hasSomething() && dueTime() <= Clock::now() && isFree(); }
  /// When what there is should be offered at the latest.
  [[nodiscard]] Clock::time_point dueTime() const;
  /// Hands over what there is. Looks at the file system for what kinds items are of that no change has told; `looked` is called now and
  /// then meanwhile, and the pulse says that it goes on.
  void offer(TreePulse& pulse, const std::function<void()>& looked);

  /// Tells the clock how far everything has been delivered; `waits` when more is known to come that is not in the window yet.
  void tellClock(bool waits);
  /// The mailbox, and the engine's number in it, for somebody who tells on behalf of an engine that does not get on.
  [[nodiscard]] StreamMailbox::EngineNumber number() const { return number_; }
  StreamMailbox& mailbox() { return *mailbox_; }
  /// Nothing is told from now on, and no identifier waits for it. Any thread.
  void leave();

 private:
  struct Place {
    std::string reportedPath;
    std::string openPath;
  };
  [[nodiscard]] FSEventStreamEventFlags kindOf(const PendingEvent& event) const;

  const EngineConfiguration& configuration_;
  const std::shared_ptr<StreamStatus> status_;
  const std::shared_ptr<StreamMailbox> mailbox_;
  const std::shared_ptr<EventClock::Member> clock_;
  const StreamMailbox::EngineNumber number_;
  Coalescer coalescer_;
  std::map<std::uint32_t, Place> places_;
  /// The paths of trees that this window has given up.
  std::vector<std::string> givenUp_;
  const bool owesHistory_;
  bool endsHistory_ = false;
  std::uint64_t knownEmpty_ = EventClock::now();
  std::uint64_t deliveredUpTo_ = 0;
  bool waitingTold_ = false;
  Clock::time_point lastOffer_{};
  bool offeredOnce_ = false;
};

}  // namespace platform::fsevents
