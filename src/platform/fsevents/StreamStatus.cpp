#include "platform/fsevents/StreamStatus.h"

#include <algorithm>
#include <utility>

#include "platform/foundation/log/Log.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform::fsevents {
namespace {

/// How many different losses and unreadable folders are remembered by path and said in the log; more are counted together.
constexpr std::size_t kRememberedLosses = 64;
constexpr std::size_t kRememberedFolders = 1024;
constexpr std::size_t kLoggedFolders = 16;
/// The character after the separator: what is below a folder sorts before the folder's path and this.
constexpr char kAfterSlash = '/' + 1;

Object texts(const auto& list) {
  Array array;
  for (const std::string& text : list) array.emplace_back(text);
  return Object(std::move(array));
}

}  // namespace

void StreamStatus::addLoss(const std::string& reason, const std::string& path) {
  bool first = false;
  {
    const std::lock_guard lock(mutex_);
    first = std::none_of(losses_.begin(), losses_.end(), [&](const Loss& loss) { return loss.reason == reason; });
    auto known = std::find_if(losses_.begin(), losses_.end(), [&](const Loss& loss) { return loss.reason == reason && loss.path == path; });
    if (known == losses_.end() && losses_.size() >= kRememberedLosses) {
      known = std::find_if(losses_.begin(), losses_.end(), [&](const Loss& loss) { return loss.reason == reason; });
    }
    if (known == losses_.end()) known = losses_.insert(losses_.end(), Loss{reason, path, 0});
    ++known->count;
  }
  if (first) NSLog("FSEventStream: " + reason + " (" + path + ")");
}

void StreamStatus::addUnreadable(const std::string& path) {
  std::size_t count = 0;
  {
    const std::lock_guard lock(mutex_);
    if (unreadable_.size() >= kRememberedFolders || !unreadable_.insert(path).second) return;
    count = unreadableCount_ = unreadable_.size();
  }
  if (count <= kLoggedFolders) NSLog("FSEventStream: no permission to read " + path + "; it is skipped until its mode changes");
}

void StreamStatus::removeUnreadable(const std::string& path) {
  const std::lock_guard lock(mutex_);
  unreadable_.erase(path);
  unreadable_.erase(unreadable_.lower_bound(path + "/"), unreadable_.lower_bound(path + kAfterSlash));
  unreadableCount_ = unreadable_.size();
}

void StreamStatus::moveUnreadable(const std::string& from, const std::string& to) {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> moved;
  if (unreadable_.erase(from) > 0) moved.push_back(to);
  const auto begin = unreadable_.lower_bound(from + "/");
  const auto end = unreadable_.lower_bound(from + kAfterSlash);
  for (auto path = begin; path != end; ++path) moved.push_back(to + path->substr(from.size()));
  unreadable_.erase(begin, end);
  unreadable_.insert(moved.begin(), moved.end());
  unreadableCount_ = unreadable_.size();
}

void StreamStatus::setPolled(std::vector<std::string> paths) {
  const std::lock_guard lock(mutex_);
  polled_ = std::move(paths);
}

void StreamStatus::addSource(const std::string& name) {
  const std::lock_guard lock(mutex_);
  sources_.insert(name);
}

std::string StreamStatus::sources() const {
  const std::lock_guard lock(mutex_);
  std::string text;
  for (const std::string& name : sources_) text += (text.empty() ? "" : "+") + name;
  return text;
}

void StreamStatus::setError(const std::string& text) {
  const std::lock_guard lock(mutex_);
  error_ = text;
}

std::string StreamStatus::error() const {
  const std::lock_guard lock(mutex_);
  return error_;
}

void StreamStatus::describe(Dictionary& entries) const {
  entries["source"] = sources();
  const std::lock_guard lock(mutex_);
  Array losses;
  for (const Loss& loss : losses_) {
    losses.emplace_back(
        Dictionary{{"reason", loss.reason}, {"path", loss.path}, {"count", Object::numberWithUnsignedLongLong(loss.count)}});
  }
  entries["foldersMarked"] = Object::numberWithLongLong(foldersMarked.load());
  entries["eventsDelivered"] = Object::numberWithUnsignedLongLong(eventsDelivered.load());
  entries["deliveries"] = Object::numberWithUnsignedLongLong(deliveries.load());
  entries["losses"] = std::move(losses);
  entries["unreadable"] = texts(unreadable_);
  entries["polled"] = texts(polled_);
  if (!error_.empty()) entries["error"] = error_;
}

}  // namespace platform::fsevents
