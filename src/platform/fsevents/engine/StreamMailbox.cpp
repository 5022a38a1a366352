#include "platform/fsevents/engine/StreamMailbox.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace platform::fsevents {

StreamMailbox::EngineNumber StreamMailbox::join(std::shared_ptr<const EventClock::Member> member, std::function<void()> free,
                                                bool owesHistory) {
  const MutexLock lock(mutex_);
  slots_.emplace(++joined_, Slot{std::move(member), std::move(free), true, owesHistory});
  return joined_;
}

bool StreamMailbox::isFree(EngineNumber engine) const {
  const MutexLock lock(mutex_);
  const auto slot = slots_.find(engine);
  return slot != slots_.end() && slot->second.isFree;
}

void StreamMailbox::offer(EngineNumber engine, StreamBatch batch) {
  const MutexLock lock(mutex_);
  const auto slot = slots_.find(engine);
  if (slot == slots_.end()) return;
  slot->second.isFree = false;
  if (batch.endsHistory) slot->second.owesHistory = false;
  enter(engine, *slot->second.member, std::move(batch));
}

void StreamMailbox::tell(EngineNumber engine, StreamBatch batch) {
  const MutexLock lock(mutex_);
  if (const auto slot = slots_.find(engine); slot != slots_.end()) enter(0, *slot->second.member, std::move(batch));
}

void StreamMailbox::enter(EngineNumber engine, const EventClock::Member& member, StreamBatch batch) {
  if (isHistoryComplete()) {
    batch.events.push_back({*std::exchange(awaitedHistory_, std::nullopt), kFSEventStreamEventFlagHistoryDone, 0});
  }
  FSEventStreamEventId id = EventClock::shared().reserve(member, batch.events.size(), batch.knownEmpty);
  for (FSEvent& event : batch.events) event.id = id++;
  if (notices_) batch.losses = notices_();
  letters_.push_back({engine, std::move(batch)});
  signal_();
  changed_.notifyAll();
}

bool StreamMailbox::isHistoryComplete() const {
  return awaitedHistory_ && std::none_of(slots_.begin(), slots_.end(), [](const auto& slot) { return slot.second.owesHistory; });
}

void StreamMailbox::excuse(EngineNumber engine) {
  const MutexLock lock(mutex_);
  const auto slot = slots_.find(engine);
  if (slot == slots_.end() || !std::exchange(slot->second.owesHistory, false) || !isHistoryComplete()) return;
  StreamBatch batch;
  batch.knownEmpty = EventClock::now();
  enter(0, *slot->second.member, std::move(batch));
}

void StreamMailbox::leave(EngineNumber engine) {
  excuse(engine);
  const MutexLock lock(mutex_);
  slots_.erase(engine);
}

void StreamMailbox::expectHistory(std::string path) {
  const MutexLock lock(mutex_);
  awaitedHistory_ = std::move(path);
}

std::optional<StreamBatch> StreamMailbox::take() {
  const MutexLock lock(mutex_);
  if (letters_.empty() || handler_ != std::thread::id()) return std::nullopt;
  Letter letter = std::move(letters_.front());
  letters_.pop_front();
  handler_ = std::this_thread::get_id();
  handledEngine_ = letter.engine;
  if (!letter.batch.events.empty()) latestId_ = letter.batch.events.back().id;
  return std::move(letter.batch);
}

void StreamMailbox::handled() {
  const MutexLock lock(mutex_);
  handler_ = std::thread::id();
  if (const auto slot = slots_.find(std::exchange(handledEngine_, 0)); slot != slots_.end()) {
    slot->second.isFree = true;
    slot->second.free();
  }
  // What came in meanwhile found the way taken.
  if (!letters_.empty()) signal_();
  changed_.notifyAll();
}

void StreamMailbox::close() {
  const MutexLock lock(mutex_);
  slots_.clear();
  letters_.clear();
  awaitedHistory_.reset();
  changed_.notifyAll();
}

bool StreamMailbox::isHandling() const {
  const MutexLock lock(mutex_);
  return handler_ == std::this_thread::get_id();
}

bool StreamMailbox::hasWaiting() const {
  const MutexLock lock(mutex_);
  return !letters_.empty();
}

bool StreamMailbox::isIdle() const {
  const MutexLock lock(mutex_);
  return letters_.empty() && handler_ == std::thread::id();
}

void StreamMailbox::waitHandled() {
  MutexLock lock(mutex_);
  while (handler_ != std::thread::id() && handler_ != std::this_thread::get_id()) changed_.wait(lock);
}

void StreamMailbox::waitIdle(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  MutexLock lock(mutex_);
  while (!letters_.empty() || handler_ != std::thread::id()) {
    if (!changed_.waitUntil(lock, deadline)) return;
  }
}

FSEventStreamEventId StreamMailbox::latestId() const {
  const MutexLock lock(mutex_);
  return latestId_;
}

}  // namespace platform::fsevents
