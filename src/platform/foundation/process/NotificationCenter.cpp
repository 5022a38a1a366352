#include "platform/foundation/process/NotificationCenter.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "platform/foundation/base/Mutex.h"

namespace platform {

struct NotificationCenter::State {
  /// By registration, so that posting follows that order and a removal is not a search.
  using Observers = std::map<std::uint64_t, std::shared_ptr<Observation::Impl>>;

  Mutex mutex;
  std::uint64_t lastKey GUARDED_BY(mutex) = 0;
  std::map<std::string, Observers, std::less<>> observersByName GUARDED_BY(mutex);

  std::vector<std::shared_ptr<Observation::Impl>> observersOf(const std::string& name) EXCLUDES(mutex);
};

struct NotificationCenter::Observation::Impl {
  std::weak_ptr<State> center;
  std::string name;
  std::uint64_t key = 0;
  SynchronousExecutor queue;
  std::function<void(const Notification&)> block;
  std::atomic<bool> inForce = true;

  void deliver(const Notification& notification);
  void remove();
};

void NotificationCenter::Observation::Impl::deliver(const Notification& notification) {
  // Looked at on the thread that runs the block: a removal on that thread is obeyed at once.
  const auto run = [&] {
    if (inForce) block(notification);
  };
  if (queue) {
    queue(run);
  } else {
    run();
  }
}

void NotificationCenter::Observation::Impl::remove() {
  inForce = false;
  const std::shared_ptr<State> state = center.lock();
  if (!state) return;
  std::shared_ptr<Impl> removed;  // destroyed after the lock is released: what the block holds may call the centre
  const MutexLock lock(state->mutex);
  const auto named = state->observersByName.find(name);
  if (named == state->observersByName.end()) return;
  const auto found = named->second.find(key);
  if (found == named->second.end()) return;
  removed = std::move(found->second);
  named->second.erase(found);
  if (named->second.empty()) state->observersByName.erase(named);
}

NotificationCenter::Observation::Observation(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

NotificationCenter::Observation& NotificationCenter::Observation::operator=(Observation&& other) noexcept {
  if (this != &other) {
    remove();
    impl_ = std::move(other.impl_);
  }
  return *this;
}

NotificationCenter::Observation::~Observation() { remove(); }

void NotificationCenter::Observation::remove() {
  if (const std::shared_ptr<Impl> impl = std::exchange(impl_, nullptr)) impl->remove();
}

void NotificationCenter::Observation::detach() { impl_.reset(); }

NotificationCenter::NotificationCenter() : state_(std::make_shared<State>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter& center = *new NotificationCenter();
  return center;
}

NotificationCenter::Observation NotificationCenter::addObserver(std::string name, SynchronousExecutor queue,
                                                                std::function<void(const Notification&)> block) {
  auto impl = std::make_shared<Observation::Impl>();
  impl->center = state_;
  impl->name = std::move(name);
  impl->queue = std::move(queue);
  impl->block = std::move(block);
  const MutexLock lock(state_->mutex);
  impl->key = ++state_->lastKey;
  state_->observersByName[impl->name].emplace(impl->key, impl);
  return Observation(impl);
}

std::vector<std::shared_ptr<NotificationCenter::Observation::Impl>> NotificationCenter::State::observersOf(const std::string& name) {
  std::vector<std::shared_ptr<Observation::Impl>> observers;
  const MutexLock lock(mutex);
  const auto named = observersByName.find(name);
  if (named == observersByName.end()) return observers;
  observers.reserve(named->second.size());
  for (const auto& [key, observer] : named->second) observers.push_back(observer);
  return observers;
}

void NotificationCenter::postNotification(const Notification& notification) {
  // A block may destroy the centre's owner; the observers that are due are held by this list.
  for (const auto& observer : state_->observersOf(notification.name)) observer->deliver(notification);
}

}  // namespace platform
