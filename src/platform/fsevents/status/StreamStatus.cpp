#include "platform/fsevents/status/StreamStatus.h"

#include <fmt/format.h>

#include <utility>

#include "platform/foundation/log/Log.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/fsevents/event/ShownPath.h"

namespace platform::fsevents {
namespace {

Object texts(const auto& list) {
  Array array;
  for (const std::string& text : list) array.emplace_back(text);
  return Object(std::move(array));
}

double seconds(std::chrono::milliseconds time) { return std::chrono::duration<double>(time).count(); }

}  // namespace

void StreamStatus::setPolled(const void* owner, std::vector<std::string> paths) {
  const MutexLock lock(mutex_);
  if (paths.empty()) {
    polled_.erase(owner);
  } else {
    polled_.insert_or_assign(owner, std::move(paths));
  }
}

void StreamStatus::setRegion(const std::string& path, std::size_t folders, std::chrono::milliseconds interval, const std::string& reason) {
  bool isNew = false;
  {
    const MutexLock lock(mutex_);
    Region& region = regions_[shownPath(path)];
    isNew = region.reason != reason;
    region = {folders, interval, reason};
  }
  if (!isNew) return;
  NSLog(fmt::format("FSEventStream: {} folders at {} are compared every {:.0f} s at least: {}", folders, shownPath(path), seconds(interval),
                    reason));
}

void StreamStatus::removeRegion(const std::string& path) {
  bool wasThere = false;
  {
    const MutexLock lock(mutex_);
    wasThere = regions_.erase(shownPath(path)) > 0;
  }
  if (wasThere) NSLog("FSEventStream: no folder at " + shownPath(path) + " is compared any more");
}

void StreamStatus::setSource(const std::string& path, const std::string& name) {
  const MutexLock lock(mutex_);
  sourceOf_[shownPath(path)] = name;
}

void StreamStatus::removeSource(const std::string& path) {
  const MutexLock lock(mutex_);
  sourceOf_.erase(shownPath(path));
}

void StreamStatus::addSource(const std::string& name) {
  const MutexLock lock(mutex_);
  sources_.insert(name);
}

std::string StreamStatus::sources() const {
  const MutexLock lock(mutex_);
  std::set<std::string> all = sources_;
  for (const auto& [path, name] : sourceOf_) all.insert(name);
  std::string text;
  for (const std::string& name : all) text += (text.empty() ? "" : "+") + name;
  return text;
}

void StreamStatus::setError(const std::string& text) {
  const MutexLock lock(mutex_);
  error_ = text;
}

std::string StreamStatus::error() const {
  const MutexLock lock(mutex_);
  return error_;
}

void StreamStatus::describe(Dictionary& entries) const {
  entries["source"] = sources();
  entries["foldersMarked"] = Object::numberWithLongLong(foldersMarked.load());
  entries["eventsDelivered"] = Object::numberWithUnsignedLongLong(eventsDelivered.load());
  entries["deliveries"] = Object::numberWithUnsignedLongLong(deliveries.load());
  losses_.describe(entries);
  const MutexLock lock(mutex_);
  Array regions;
  for (const auto& [path, region] : regions_) {
    regions.emplace_back(Dictionary{{"path", path},
                                    {"folders", Object::numberWithUnsignedLongLong(region.folders)},
                                    {"interval", Object::numberWithDouble(seconds(region.interval))},
                                    {"reason", region.reason}});
  }
  Array trees;
  for (const auto& [path, name] : sourceOf_) trees.emplace_back(Dictionary{{"path", path}, {"source", name}});
  entries["regions"] = std::move(regions);
  entries["trees"] = std::move(trees);
  std::set<std::string> polled;
  for (const auto& [owner, paths] : polled_) polled.insert(paths.begin(), paths.end());
  entries["polled"] = texts(polled);
  if (!error_.empty()) entries["error"] = error_;
}

}  // namespace platform::fsevents
