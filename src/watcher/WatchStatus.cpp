#include "watcher/WatchStatus.h"

#include <atomic>
#include <utility>

#include "contract/WatchEntry.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine {

namespace {

std::uint64_t nextNumber() {
  static std::atomic<std::uint64_t> last = 0;
  return ++last;
}

}  // namespace

FileWatcherServiceXPC::Status::Status()
    : number_(nextNumber()), registration_(platform::StatusRegistry::shared().add(kWatchesSection, [this] { return describe(); })) {}

void FileWatcherServiceXPC::Status::watches(std::string folder) {
  const platform::MutexLock lock(mutex_);
  folder_ = std::move(folder);
}

void FileWatcherServiceXPC::Status::stands() {
  const platform::MutexLock lock(mutex_);
  state_ = WatchState::Standing;
}

void FileWatcherServiceXPC::Status::failed(std::string reason) {
  const platform::MutexLock lock(mutex_);
  state_ = WatchState::Failed;
  reason_ = std::move(reason);
}

void FileWatcherServiceXPC::Status::ends() {
  // Let go of without the lock, since that waits for a description that is being made.
  const auto gone = registration_.with([](auto& registration) { return std::exchange(registration, {}); });
}

std::optional<std::string> FileWatcherServiceXPC::Status::standingFolder() const {
  const platform::MutexLock lock(mutex_);
  return state_ == WatchState::Standing ? std::optional(folder_) : std::nullopt;
}

platform::Object FileWatcherServiceXPC::Status::describe() const {
  const platform::MutexLock lock(mutex_);
  platform::Dictionary entry;
  entry[kWatchNumberKey] = platform::Object::numberWithUnsignedLongLong(number_);
  entry[kWatchFolderKey] = folder_;
  entry[kWatchStateKey] = watchStateName(state_);
  if (!reason_.empty()) entry[kWatchReasonKey] = reason_;
  return entry;
}

}  // namespace kestrine
