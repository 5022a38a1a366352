#include "watcher/FlagRaiser.h"

#include <fmt/format.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "contract/FlagEntry.h"
#include "contract/SharedPreferences.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine {

namespace {

using platform::MutexLock;
using platform::PreferencesError;
using platform::UserDefaults;
using Seconds = std::chrono::duration<double>;

// Most causes are over at once or stay for long: a second writer, a full disk.
constexpr Seconds kFirstDelay{0.1};
constexpr Seconds kLongestDelay{10};
constexpr Seconds kDelayAtTheEnd{0.05};

}  // namespace

FlagRaiser& FlagRaiser::shared() {
  static auto& one = *new FlagRaiser;
  return one;
}

void FlagRaiser::prepare() {
  const MutexLock lock(mutex_);
  if (thread_ != nullptr) return;
  try {
    thread_ = new platform::ServingThread("flag", "an exception left an attempt to raise the flag");
  } catch (const std::system_error& error) {
    platform::NSLog(fmt::format("there is no thread for a flag that cannot be written at once: {}", error.what()));
  }
}

void FlagRaiser::raise() {
  {
    const MutexLock lock(mutex_);
    ++attempts_;
  }
  makeAttempt(true);
}

void FlagRaiser::makeAttempt(bool isNew) {
  {
    const MutexLock writing(writing_);
    note(attempt(isNew));
  }
  const MutexLock lock(mutex_);
  --attempts_;
  changed_.notifyAll();
}

std::string FlagRaiser::attempt(bool isNew) {
  // Nothing may leave it: the flag would be forgotten.
  try {
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    if (isNew) isVisible_ = false;
    if (!isVisible_) defaults.setObject_forKey(kFlagRaised, kFlagKey);
    if (isNew) platform::NSLog("FileWatcher 1 in filewatcher service");
    if (defaults.synchronize()) return {};
    const auto error = defaults.lastError();
    if (error && error->kind == PreferencesError::Kind::NotFlushed) {
      // Where the flag did not come so far, it is set again by the next attempt.
      defaults.forgetChange(kFlagKey);
      isVisible_ = defaults.objectForKey(kFlagKey) == platform::Object(kFlagRaised);
    }
    return error && !error->reason.empty() ? error->reason : "the preferences cannot be written";
  } catch (const std::exception& error) {
    return error.what();
  }
}

void FlagRaiser::note(const std::string& reason) {
  bool wasOwed = false;
  {
    const MutexLock lock(mutex_);
    wasOwed = !std::exchange(reason_, reason).empty();
    if (reason.empty()) delay_ = kFirstDelay;
    changed_.notifyAll();
  }
  if (reason.empty()) {
    entry_ = {};
    if (wasOwed) platform::NSLog("the flag, which could not be raised, is raised now");
    return;
  }
  if (!wasOwed) owedSince_ = platform::Date::now();
  const platform::Object entry = platform::Dictionary{{kOwedFlagSinceKey, owedSince_}, {kOwedFlagReasonKey, reason}};
  entry_ = {};
  entry_ = platform::StatusRegistry::shared().add(kOwedFlagSection, [entry] { return entry; });
  tryLater();
}

void FlagRaiser::tryLater() {
  Seconds delay{};
  const platform::ServingThread* thread = nullptr;
  {
    const MutexLock lock(mutex_);
    if (std::exchange(isRetryDue_, true)) return;
    delay = isEnding_ ? kDelayAtTheEnd : std::max(delay_, kFirstDelay);
    delay_ = std::min(2 * delay, kLongestDelay);
    thread = thread_;
  }
  const auto timer = platform::RunLoopTimer::create(delay.count(), 0, [this] { retry(); });
  if (thread != nullptr) {
    thread->loop().add(timer);
  } else {
    platform::RunLoop::current()->add(timer);
  }
}

void FlagRaiser::retry() {
  {
    const MutexLock lock(mutex_);
    isRetryDue_ = false;
    if (reason_.empty()) return;
    ++attempts_;
  }
  makeAttempt(false);
}

bool FlagRaiser::finish(Clock::time_point limit) {
  MutexLock lock(mutex_);
  isEnding_ = true;
  if (!reason_.empty() && thread_ != nullptr) {
    thread_->perform([this] { retry(); });
  } else if (!reason_.empty()) {
    lock.unlock();
    retry();
    lock.lock();
  }
  while (!reason_.empty() || attempts_ > 0) {
    if (changed_.waitUntil(lock, limit)) continue;
    if (reason_.empty() && attempts_ == 0) break;
    platform::NSLog("the flag could not be raised before the end, though something changed: " +
                    (reason_.empty() ? std::string("its preferences are still being written") : reason_));
    return false;
  }
  return true;
}

}  // namespace kestrine
