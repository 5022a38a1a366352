#include "platform/foundation/preferences/PreferencesWrites.h"

#include <memory>

#include "platform/foundation/preferences/Forks.h"

namespace platform {

PreferencesWrites& PreferencesWrites::shared() {
  static constinit PerProcess<PreferencesWrites> writes;
  return writes.get([] { return std::make_unique<PreferencesWrites>(); });
}

PreferencesWrites::Record& PreferencesWrites::touch(dev_t folderDevice, ino_t folderInode, std::string_view name) {
  const auto [found, added] = records_.try_emplace(Key(folderDevice, folderInode, name));
  if (added) names_.emplace(name);
  Record& record = found->second;
  byAge_.erase(record.age);
  record.age = ++touches_;
  byAge_.emplace(record.age, found->first);
  if (records_.size() > kNamesAtMost) {
    const auto oldest = byAge_.begin();
    names_.erase(names_.find(std::get<std::string>(oldest->second)));
    records_.erase(oldest->second);
    byAge_.erase(oldest);
  }
  used_.store(true, std::memory_order_release);
  return record;
}

bool PreferencesWrites::hasName(std::string_view name) {
  if (!used_.load(std::memory_order_acquire)) return false;
  const MutexLock lock(mutex_);
  return names_.contains(name);
}

void PreferencesWrites::recordOwnName(dev_t folderDevice, ino_t folderInode, std::string_view name) {
  const MutexLock lock(mutex_);
  touch(folderDevice, folderInode, name).own = true;
}

void PreferencesWrites::Record::forgetExpired(Clock::time_point now) {
  while (!expected.empty() && (now - expected.front() > kExpiry || expected.size() > kEventsAtMost)) expected.pop_front();
}

void PreferencesWrites::expectEvent(dev_t folderDevice, ino_t folderInode, std::string_view name, Clock::time_point now) {
  const MutexLock lock(mutex_);
  Record& record = touch(folderDevice, folderInode, name);
  record.expected.push_back(now);
  record.forgetExpired(now);
}

void PreferencesWrites::cancelEvent(dev_t folderDevice, ino_t folderInode, std::string_view name) {
  const MutexLock lock(mutex_);
  const auto found = records_.find(Key(folderDevice, folderInode, name));
  if (found != records_.end() && !found->second.expected.empty()) found->second.expected.pop_back();
}

bool PreferencesWrites::isOwnWrite(dev_t folderDevice, ino_t folderInode, std::string_view name, Clock::time_point now) {
  if (!used_.load(std::memory_order_acquire)) return false;
  const MutexLock lock(mutex_);
  const auto found = records_.find(Key(folderDevice, folderInode, name));
  if (found == records_.end()) return false;
  Record& record = found->second;
  if (record.own) return true;
  record.forgetExpired(now);
  if (record.expected.empty()) return false;
  record.expected.pop_front();
  return true;
}

}  // namespace platform
