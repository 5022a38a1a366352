#include "platform/foundation/process/StatusRegistry.h"

#include <exception>
#include <map>
#include <utility>

#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

struct StatusRegistry::State {
  struct Entry {
    std::string section;
    std::function<Object()> describe;
  };
  /// Held while the functions run: that is what makes a removal wait for them.
  Mutex mutex;
  std::uint64_t lastKey GUARDED_BY(mutex) = 0;
  /// Keys grow, so the order is that of the additions.
  std::map<std::uint64_t, Entry> entries GUARDED_BY(mutex);
};

namespace {

Object describeSafely(const std::function<Object()>& describe) {
  try {
    return describe();
  } catch (const std::exception& error) {
    return Dictionary{{"error", error.what()}};
  } catch (...) {
    return Dictionary{{"error", "an exception of an unknown type"}};
  }
}

}  // namespace

StatusRegistry::Registration::Registration(Registration&& other) noexcept
    : registry_(std::exchange(other.registry_, nullptr)), key_(std::exchange(other.key_, 0)) {}

StatusRegistry::Registration& StatusRegistry::Registration::operator=(Registration&& other) noexcept {
  if (this != &other) {
    if (registry_ != nullptr) registry_->remove(key_);
    registry_ = std::exchange(other.registry_, nullptr);
    key_ = std::exchange(other.key_, 0);
  }
  return *this;
}

StatusRegistry::Registration::~Registration() {
  if (registry_ != nullptr) registry_->remove(key_);
}

StatusRegistry& StatusRegistry::shared() {
  static StatusRegistry& registry = *new StatusRegistry();
  return registry;
}

StatusRegistry::StatusRegistry() : state_(std::make_unique<State>()) {}
StatusRegistry::~StatusRegistry() = default;

StatusRegistry::Registration StatusRegistry::add(std::string section, std::function<Object()> describe) {
  const MutexLock lock(state_->mutex);
  const std::uint64_t key = ++state_->lastKey;
  state_->entries.emplace(key, State::Entry{std::move(section), std::move(describe)});
  return {this, key};
}

void StatusRegistry::remove(std::uint64_t key) {
  std::map<std::uint64_t, State::Entry>::node_type removed;  // destroyed after the lock is released
  const MutexLock lock(state_->mutex);
  removed = state_->entries.extract(key);
}

Object StatusRegistry::snapshot() const {
  std::map<std::string, Array> sections;
  {
    const MutexLock lock(state_->mutex);
    for (const auto& [key, entry] : state_->entries) sections[entry.section].push_back(describeSafely(entry.describe));
  }
  Dictionary all;
  for (auto& [section, descriptions] : sections) all.emplace(section, std::move(descriptions));
  return all;
}

}  // namespace platform
