#include "platform/foundation/preferences/PreferencesLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/PreferencesError.h"
#include "platform/foundation/preferences/PreferencesFolder.h"
#include "platform/foundation/preferences/PreferencesLimits.h"

namespace platform {

namespace {

using Clock = PreferencesLock::Clock;

/// flock(2) knows no time to wait for, so the lock is asked for again and again, less often as that goes on.
class LockWait {
 public:
  LockWait(const std::string& subject, Clock::time_point end) : subject_(subject), end_(end) {}

  void again(int descriptor) {
    const auto now = Clock::now();
    if (now >= end_)
      throw PreferencesFailure(PreferencesError::Kind::Locked, holderOfLock(descriptor) + " has the lock and does not give it back");
    if (!isSaid_ && now - begin_ >= preferencesLimits().lockSaid) {
      isSaid_ = true;
      NSLog("Waiting for the lock of the preferences " + subject_ + ", which " + holderOfLock(descriptor) + " has");
    }
    std::this_thread::sleep_for(std::min<Clock::duration>(pause_, end_ - now));
    constexpr std::chrono::milliseconds kLongestPause{4};
    pause_ = std::min<Clock::duration>(2 * pause_, kLongestPause);
  }

 private:
  const std::string& subject_;
  const Clock::time_point begin_ = Clock::now();
  const Clock::time_point end_;
  Clock::duration pause_ = std::chrono::microseconds(100);
  bool isSaid_ = false;
};

/// Whether the lock is taken now. `writable`: opened for writing too.
bool tryLock(int descriptor, bool writable, bool& needsWritable) {
  int result = 0;
  do result = flock(descriptor, LOCK_EX | LOCK_NB);
  while (result != 0 && errno == EINTR);
  if (result == 0) return true;
  // Network file systems lock for writing only what is open for writing.
  needsWritable = errno == EBADF && !writable;
  if (!needsWritable && errno != EWOULDBLOCK) throwLastError("taking the lock");
  return false;
}

}  // namespace

PreferencesLock::PreferencesLock(const PreferencesFolder& folder, const std::string& name, const std::string& subject,
                                 Clock::time_point end)
    : file_([] { return FileHandle(); }) {
  LockWait wait(subject, end);
  bool writable = false;
  while (true) {
    file_ = UnsharedDescriptor([&] { return folder.openLock(name, writable); });
    bool needsWritable = false;
    while (!needsWritable && !tryLock(file_.descriptor(), writable, needsWritable)) {
      if (!needsWritable) wait.again(file_.descriptor());
    }
    if (needsWritable) {
      writable = true;
    } else if (folder.isCalled(file_.descriptor(), name)) {
      return;
    }
    // Else somebody has removed the lock file while we waited; then others lock another one.
  }
}

PreferencesLock::~PreferencesLock() {
  if (isOurs()) flock(file_.descriptor(), LOCK_UN);
}

}  // namespace platform
