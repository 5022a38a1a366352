#include "platform/fsevents/engine/EngineWindow.h"

#include <utility>

#include "platform/fsevents/folders/PathOpener.h"

namespace platform::fsevents {
namespace {

constexpr std::size_t kItemsBetweenLooks = 1024;

}  // namespace

EngineWindow::EngineWindow(const EngineConfiguration& configuration, std::shared_ptr<StreamStatus> status,
                           std::shared_ptr<StreamMailbox> mailbox, bool owesHistory, std::function<void()> refresh,
                           std::function<void()> free)
    : configuration_(configuration),
      status_(std::move(status)),
      mailbox_(std::move(mailbox)),
      clock_(std::make_shared<EventClock::Member>(std::move(refresh))),
      number_(mailbox_->join(clock_, std::move(free), owesHistory)),
      owesHistory_(owesHistory) {}

void EngineWindow::setTree(std::uint32_t number, const TreeOptions& options, FSEventStreamEventFlags kind) {
  places_.insert_or_assign(number, Place{options.reportedPath, options.openPath});
  coalescer_.setRoot(number, options.reportedPath, options.fileEvents ? kind : 0);
}

void EngineWindow::removeTree(std::uint32_t number) {
  places_.erase(number);
  coalescer_.removeTree(number);
}

void EngineWindow::collect() {
  for (std::string& path : coalescer_.takeGivenUp()) {
    status_->losses().begin(LossKind::OwnBound, path, "more changed than could be remembered while the handler was busy", "");
    givenUp_.push_back(std::move(path));
  }
}

EngineWindow::Clock::time_point EngineWindow::dueTime() const {
  if (endsHistory_) return Clock::time_point::min();
  if (coalescer_.empty()) return lastOffer_ + configuration_.latency;
  if (!configuration_.has(kFSEventStreamCreateFlagNoDefer)) return coalescer_.opened() + configuration_.latency;
  if (!offeredOnce_ || lastOffer_ + configuration_.latency <= coalescer_.opened()) return coalescer_.opened();
  return lastOffer_ + configuration_.latency;
}

FSEventStreamEventFlags EngineWindow::kindOf(const PendingEvent& event) const {
  const auto place = places_.find(event.tree);
  const bool isIts = place != places_.end() && event.path.starts_with(place->second.reportedPath);
  const FSEventStreamEventFlags kind =
      isIts ? kindOfItem(place->second.openPath + event.path.substr(place->second.reportedPath.size())) : 0;
  // Of what is gone nothing can be seen any more: most items are files.
  return kind != 0 || (event.flags & kAnyItemKind) != 0 ? kind : kFSEventStreamEventFlagItemIsFile;
}

void EngineWindow::offer(TreePulse& pulse, const std::function<void()>& looked) {
  StreamBatch batch;
  // What comes after the rescan that is told now is exact again.
  for (const std::string& path : std::exchange(givenUp_, {})) status_->losses().end(LossKind::OwnBound, path);
  std::vector<PendingEvent> pending = coalescer_.take();
  batch.events.reserve(pending.size() + 1);
  batch.knownEmpty = knownEmpty_;
  batch.endsHistory = std::exchange(endsHistory_, false);
  std::size_t count = 0;
  for (PendingEvent& event : pending) {
    if (event.needsKind) {
      event.flags |= kindOf(event);
      ++pulse.steps;
      if (++count % kItemsBetweenLooks == 0) looked();
    }
    batch.events.push_back({std::move(event.path), event.flags, 0});
  }
  lastOffer_ = Clock::now();
  offeredOnce_ = true;
  mailbox_->offer(number_, std::move(batch));
}

void EngineWindow::tellClock(bool waits) {
  const bool waiting = waits || hasSomething() || !isFree();
  if (!waiting) {
    deliveredUpTo_ = knownEmpty_;
    clock_->everythingDelivered(deliveredUpTo_);
  } else if (!waitingTold_) {
    clock_->deliveredUpTo(deliveredUpTo_);
  }
  waitingTold_ = waiting;
}

void EngineWindow::leave() {
  mailbox_->leave(number_);
  clock_->leave();
}

}  // namespace platform::fsevents
