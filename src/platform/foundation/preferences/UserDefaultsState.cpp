#include "platform/foundation/preferences/UserDefaultsState.h"

#include <memory>
#include <utility>
#include <vector>

#include "platform/foundation/preferences/PreferencesLimits.h"
#include "platform/foundation/preferences/PreferencesReasons.h"
#include "platform/foundation/preferences/StorableValue.h"

namespace platform {

namespace {

using Kind = PreferencesError::Kind;
using Answer = FileVersion::Answer;

std::string listOf(const std::vector<std::string>& keys) {
  std::string text;
  for (const auto& key : keys) text += (text.empty() ? "\"" : ", \"") + key + "\"";
  return text;
}

}  // namespace

/// The right to write, for one thread at a time.
class UserDefaultsState::Turn {
 public:
  Turn(UserDefaultsState& state, Clock::time_point end) EXCLUDES(state.mutex_) : state_(state) {
    MutexLock lock(state_.mutex_);
    while (state_.isWriting_) {
      if (!state_.free_.waitUntil(lock, end) && state_.isWriting_) return;
    }
    state_.isWriting_ = true;
    isTaken_ = true;
  }
  ~Turn() {
    if (!isTaken_ || isAbandoned()) return;
    const MutexLock lock(state_.mutex_);
    state_.isWriting_ = false;
    state_.free_.notifyOne();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  [[nodiscard]] bool isTaken() const { return isTaken_; }
  /// We are in a child that was made in the midst of it: the state is its parent's.
  [[nodiscard]] bool isAbandoned() const { return state_.generation_ != forkGeneration(); }

  static PreferencesError notTaken() {
    return {Kind::Locked, "another thread of this process is writing them and does not come to an end"};
  }

 private:
  UserDefaultsState& state_;
  bool isTaken_ = false;
};

PreferencesSnapshot UserDefaultsState::known() {
  const MutexLock lock(mutex_);
  return onDisk_;
}

Object UserDefaultsState::value(std::string_view key) {
  PreferencesSnapshot known;
  {
    const MutexLock lock(mutex_);
    if (const Object* change = changes_.find(key)) return *change;
    known = onDisk_;
  }
  const Known now = refreshed(known);
  return now.contents ? now.contents->values.objectForKey(key) : Object();
}

void UserDefaultsState::remember(Object value, std::string_view key) {
  const MutexLock lock(mutex_);
  changes_.put(key, std::move(value));
}

void UserDefaultsState::forget(std::string_view key) {
  const MutexLock lock(mutex_);
  changes_.drop(key);
}

UserDefaultsState::Known UserDefaultsState::refreshed(const PreferencesSnapshot& known) {
  if (known && known->version.compare(file_.path()) == Answer::Same) {
    const MutexLock lock(mutex_);
    readError_.reset();
    return {known, true};
  }
  std::shared_ptr<const FileVersion> damaged;
  {
    const MutexLock lock(mutex_);
    damaged = damaged_;
  }
  if (damaged && damaged->compare(file_.path()) == Answer::Same) return {known, false};
  PreferencesFile::Reading reading = known ? file_.read(known) : file_.readPatiently();
  if (!noteRead(file_.path(), reading.error)) {
    const MutexLock lock(mutex_);
    damaged_ = reading.damaged.exists() ? std::make_shared<const FileVersion>(std::move(reading.damaged)) : nullptr;
    return {known, false};
  }
  // No folder is no domain: what was known of it is gone.
  if (!reading.contents) reading.contents = std::make_shared<PreferencesContents>();
  const MutexLock lock(mutex_);
  onDisk_ = reading.contents;
  return {std::move(reading.contents), true};
}

void UserDefaultsState::install(const PreferencesFile::Outcome& outcome) {
  const MutexLock lock(mutex_);
  if (outcome.contents) {
    onDisk_ = outcome.contents;
    readError_.reset();
  }
  if (outcome.error && outcome.error->kind == Kind::NotFlushed) isFlushOwed_ = true;
  if (outcome.contents && outcome.contents->durable) isFlushOwed_ = false;
}

UserDefaultsState::Clock::time_point UserDefaultsState::endOfWait() {
  const auto bound = preferencesLimits().lock;
  const MutexLock lock(mutex_);
  const bool wasLocked = writeError_ && writeError_->kind == Kind::Locked;
  // Who has many things to write shall not wait so long for each while somebody keeps the lock.
  return Clock::now() + (wasLocked ? bound / 10 : bound);
}

bool UserDefaultsState::isThereAlready(std::optional<FileVersion::Answer>& answer) {
  PreferencesSnapshot contents;
  std::uint64_t latest = 0;
  {
    const MutexLock lock(mutex_);
    // What another thread is writing may be older than what is to be found there.
    if (isWriting_ || isFlushOwed_ || !onDisk_ || !onDisk_->durable || !changes_.areIn(onDisk_->values)) return false;
    contents = onDisk_;
    latest = changes_.latest();
  }
  answer = contents->version.compare(file_.path());
  if (answer != Answer::Same) return false;
  const MutexLock lock(mutex_);
  changes_.dropUpTo(latest);
  readError_.reset();
  writeError_.reset();
  return true;
}

bool UserDefaultsState::synchronize() {
  std::optional<Answer> answer;
  if (isThereAlready(answer)) return true;
  const auto end = endOfWait();
  const Turn turn(*this, end);
  if (!turn.isTaken()) return noteWrite(file_.path(), Turn::notTaken());
  PreferencesChanges pending;
  bool isFlushOwed = false;
  {
    const MutexLock lock(mutex_);
    pending = changes_;
    isFlushOwed = isFlushOwed_;
  }
  Known now{known(), false};
  if (pending.empty() && !isFlushOwed) {
    // Nothing of ours is missing, whatever others do to the file.
    refreshed(now.contents);
    return true;
  }
  // What may be the file that was read is looked at without the lock; what is another is read under it.
  if (now.contents && !answer) answer = now.contents->version.compare(file_.path());
  if (answer && answer != Answer::Different) now = refreshed(now.contents);
  if (!now.isCurrent || !pending.areIn(now.contents->values)) return write(pending, now.contents, end);
  const auto error = now.contents->durable ? std::nullopt : file_.flush(*now.contents);
  {
    const MutexLock lock(mutex_);
    isFlushOwed_ = error.has_value();
    if (!error) changes_.dropThoseOf(pending);
  }
  return noteWrite(file_.path(), error);
}

bool UserDefaultsState::write(const PreferencesChanges& pending, const PreferencesSnapshot& known, Clock::time_point end) {
  std::vector<std::string> refused;
  std::string why;
  const auto change = [&](const Object& values) { return pending.decide(values, refused, why); };
  const PreferencesFile::Outcome outcome = file_.update(change, known, end);
  install(outcome);
  if (outcome.error) return noteWrite(file_.path(), outcome.error);
  {
    const MutexLock lock(mutex_);
    changes_.dropThoseOf(pending);
  }
  if (refused.empty()) return noteWrite(file_.path(), std::nullopt);
  return noteWrite(file_.path(), PreferencesError{Kind::TooLarge, "the value of " + listOf(refused) + " is refused: " + why});
}

Object UserDefaultsState::exchange(std::string_view key, const std::function<Object(const Object&)>& decide, bool* failed) {
  if (failed != nullptr) *failed = true;
  const auto end = endOfWait();
  const Turn turn(*this, end);
  if (!turn.isTaken()) {
    noteWrite(file_.path(), Turn::notTaken());
    return valueOnDisk(key);
  }
  Object found;
  bool asked = false;
  bool decided = false;
  std::vector<std::string> refused;
  std::string why;
  PreferencesChanges changes;
  const auto change = [&](const Object& values) {
    const Object now = values.objectForKey(key);
    // It is asked once; what somebody has put there since without the lock is not overwritten by an answer that is about something else.
    if (asked && !(now == found)) throw PreferencesFailure(Kind::Refused, "somebody changed the value without the lock");
    if (!asked) {
      found = now;
      asked = true;
      const Object wanted = decide(found);
      if (wanted.isNil()) return PreferencesDecision::leave();
      decided = true;
      changes.put(key, storableValue(wanted, key));
    }
    return changes.decide(values, refused, why);
  };
  const PreferencesFile::Outcome outcome = file_.update(change, known(), end);
  if (turn.isAbandoned()) return found;
  install(outcome);
  std::optional<PreferencesError> error = outcome.error;
  // Who only looked has seen what is in force.
  if (asked && !decided) {
    noteRead(file_.path(), error);
    if (failed != nullptr) *failed = false;
    return found;
  }
  if (!error && !refused.empty()) error = PreferencesError{Kind::TooLarge, "the value of " + listOf(refused) + " is refused: " + why};
  const bool isDone = noteWrite(file_.path(), error);
  if (failed != nullptr) *failed = !isDone;
  if (isDone && decided) {
    const MutexLock lock(mutex_);
    changes_.drop(key);
  }
  return asked ? found : valueOnDisk(key);
}

Object UserDefaultsState::valueOnDisk(std::string_view key) {
  const Known now = refreshed(known());
  return now.contents ? now.contents->values.objectForKey(key) : Object();
}

bool UserDefaultsState::noteRead(const std::string& path, const std::optional<PreferencesError>& error) {
  const bool isWell = !error || error->kind == Kind::NoSuchDomain;
  {
    const MutexLock lock(mutex_);
    readError_ = isWell ? std::nullopt : error;
  }
  PreferencesReasons::shared().note(path, PreferencesReasons::Operation::Read, isWell ? std::string() : error->reason);
  return isWell;
}

bool UserDefaultsState::noteWrite(const std::string& path, const std::optional<PreferencesError>& error) {
  {
    const MutexLock lock(mutex_);
    writeError_ = error;
  }
  PreferencesReasons::shared().note(path, PreferencesReasons::Operation::Write, error ? error->reason : std::string());
  return !error;
}

std::optional<PreferencesError> UserDefaultsState::lastError() {
  const MutexLock lock(mutex_);
  return writeError_ ? writeError_ : readError_;
}

}  // namespace platform
