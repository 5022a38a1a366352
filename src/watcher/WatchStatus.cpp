#include "watcher/WatchStatus.h"

#include <atomic>
#include <utility>

namespace kestrine {

namespace {

std::uint64_t nextNumber() {
  static std::atomic<std::uint64_t> last = 0;
  return ++last;
}

}  // namespace

FileWatcherServiceXPC::Status::Status()
    : number_(nextNumber()), registration_(platform::StatusRegistry::shared().add("watches", [this] { return describe(); })) {}

void FileWatcherServiceXPC::Status::watches(std::string folder) {
  const std::lock_guard lock(mutex_);
  folder_ = std::move(folder);
}

void FileWatcherServiceXPC::Status::stands() {
  const std::lock_guard lock(mutex_);
  state_ = "standing";
}

void FileWatcherServiceXPC::Status::failed(std::string reason) {
  const std::lock_guard lock(mutex_);
  state_ = "failed";
  reason_ = std::move(reason);
}

platform::Object FileWatcherServiceXPC::Status::describe() const {
  const std::lock_guard lock(mutex_);
  platform::Dictionary entry;
  entry["number"] = platform::Object::numberWithUnsignedLongLong(number_);
  entry["folder"] = folder_;
  entry["state"] = state_;
  if (!reason_.empty()) entry["reason"] = reason_;
  return entry;
}

}  // namespace kestrine
