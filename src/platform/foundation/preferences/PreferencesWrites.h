#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <tuple>

#include "platform/foundation/base/Mutex.h"

namespace platform {

/// What this process's preferences writer did in which folder, so that a watcher that cannot tell its own process's changes from others'
/// (inotify) can drop exactly those. The writer records before it acts, so an event is never seen before its record.
///
/// Two kinds of names are kept. Temporary and lock files that this process made are its own for good: nobody else uses those names. Names
/// that other processes write too (the preferences file, a folder) are its own for as many events as this process causes, and for a few
/// seconds.
///
/// Threads: any thread may call anything. The number of names is bounded; the oldest are forgotten.
class PreferencesWrites {
 public:
  using Clock = std::chrono::steady_clock;
  /// For how long an event that is expected is waited for.
  static constexpr std::chrono::seconds kExpiry{5};
  static constexpr std::size_t kNamesAtMost = 512;
  static constexpr std::size_t kEventsAtMost = 4096;

  static PreferencesWrites& shared();

  /// Every event of `name` in the folder is this process's own.
  void recordOwnName(dev_t folderDevice, ino_t folderInode, std::string_view name) EXCLUDES(mutex_);
  /// One event of `name` in the folder is about to be caused.
  void expectEvent(dev_t folderDevice, ino_t folderInode, std::string_view name, Clock::time_point now = Clock::now()) EXCLUDES(mutex_);
  /// The expected event will not come.
  void cancelEvent(dev_t folderDevice, ino_t folderInode, std::string_view name) EXCLUDES(mutex_);

  /// Whether an event of `name` in the folder is this process's own; an expected one is used up by the answer. Costs one atomic load while
  /// nothing was ever recorded.
  bool isOwnWrite(dev_t folderDevice, ino_t folderInode, std::string_view name, Clock::time_point now = Clock::now()) EXCLUDES(mutex_);

  /// Whether a name of any folder is recorded: cheaper than finding out which folder an event is about.
  bool hasName(std::string_view name) EXCLUDES(mutex_);

  PreferencesWrites() = default;
  PreferencesWrites(const PreferencesWrites&) = delete;
  PreferencesWrites& operator=(const PreferencesWrites&) = delete;
  ~PreferencesWrites() = default;

 private:
  using Key = std::tuple<dev_t, ino_t, std::string>;
  struct Record {
    bool own = false;
    /// When each event that has not come yet was announced.
    std::deque<Clock::time_point> expected;
    std::uint64_t age = 0;

    void forgetExpired(Clock::time_point now);
  };

  Record& touch(dev_t folderDevice, ino_t folderInode, std::string_view name) REQUIRES(mutex_);

  std::atomic<bool> used_ = false;
  Mutex mutex_;
  std::map<Key, Record> records_ GUARDED_BY(mutex_);
  std::map<std::uint64_t, Key> byAge_ GUARDED_BY(mutex_);
  std::multiset<std::string, std::less<>> names_ GUARDED_BY(mutex_);
  std::uint64_t touches_ GUARDED_BY(mutex_) = 0;
};

}  // namespace platform
