#include "platform/foundation/preferences/PreferencesVersion.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

namespace platform {

namespace {

using std::chrono::nanoseconds;

nanoseconds asDuration(const timespec& time) { return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec); }

/// By the clock that the kernel stamps with.
nanoseconds stampingClock() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME_COARSE, &time);
  return asDuration(time);
}

/// The longest tick of the kernel's clock is 10 ms; a file system that has no fractions at all has one of 1 or 2 s.
nanoseconds tickOf(const timespec& stamp) {
  return stamp.tv_nsec == 0 ? nanoseconds(std::chrono::seconds(2)) : nanoseconds(std::chrono::milliseconds(10));
}

bool areSameStamps(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size && asDuration(a.st_ctim) == asDuration(b.st_ctim) &&
         asDuration(a.st_mtim) == asDuration(b.st_mtim);
}

}  // namespace

FileVersion::FileVersion(FileHandle file) : known_(true), file_(std::move(file)) {
  if (!file_.isOpen()) return;
  const nanoseconds now = stampingClock();
  known_ = fstat(file_.fileDescriptor(), &status_) == 0;
  const nanoseconds changed = asDuration(status_.st_ctim);
  // A stamp that lies far ahead is another clock's, or ours was set back: then each change has another stamp.
  proven_ = now - changed >= tickOf(status_.st_ctim) || changed - now > std::chrono::seconds(2);
}

FileVersion::Answer FileVersion::compare(const std::string& path) const {
  if (!known_) return Answer::Different;
  struct stat now {};
  if (stat(path.c_str(), &now) != 0) return errno == ENOENT && !exists() ? Answer::Same : Answer::Different;
  if (!exists() || !areSameStamps(now, status_)) return Answer::Different;
  return proven_ ? Answer::Same : Answer::Unproven;
}

FileVersion::Answer FileVersion::compareOpen() const {
  struct stat now {};
  if (!known_ || !exists() || fstat(descriptor(), &now) != 0 || !areSameStamps(now, status_)) return Answer::Different;
  return proven_ ? Answer::Same : Answer::Unproven;
}

bool FileVersion::hasStampsOf(const FileVersion& other) const {
  return known_ && other.known_ && exists() && other.exists() && areSameStamps(status_, other.status_);
}

bool FileVersion::hasOtherBytes() const {
  struct stat now {};
  return exists() && fstat(descriptor(), &now) == 0 &&
         (now.st_size != status_.st_size || asDuration(now.st_mtim) != asDuration(status_.st_mtim));
}

nanoseconds FileVersion::age() const {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return std::max(asDuration(time) - asDuration(status_.st_ctim), nanoseconds(0));
}

}  // namespace platform
