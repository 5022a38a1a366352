#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/value/Object.h"
#include "platform/fsevents/status/LossNotices.h"

namespace platform::fsevents {

enum class LossKind : std::uint8_t {
  /// The kernel's queue was full.
  QueueOverflow,
  /// A bound of our own was reached.
  OwnBound,
  /// The disk shows what no change explains.
  Unexplained,
  /// The kernel marks no further folder.
  MarkLimit,
  /// The kernel gives no further queue.
  QueueLimit,
  /// Missing permission.
  Rights,
  /// The file system answers with an error.
  InputOutput,
  /// The file system does not answer.
  Hang,
  /// The clock does not lead back to an identifier.
  Clock,
};
inline constexpr std::size_t kLossKinds = 9;

/// What a stream cannot tell of at the moment, or could not for a moment: the one way out for an overflow, a limit, missing rights, a
/// failing or hanging disk. A loss has a place (a reported path, which stands for what is at and below it), begins, lasts, and ends when
/// whoever began it has looked again and found everything as it should be.
///
/// Bounded: beyond kNamed places of one kind the further ones are held together as one loss at the folder above all of them, which ends
/// with the last of them; beyond kCounted of those it is no longer known which they are, and only `forget` at a folder above ends it.
/// Threads: any thread may call anything.
class Losses {
 public:
  static constexpr std::size_t kNamed = 1024;
  static constexpr std::size_t kCounted = 65536;
  /// How many losses that are over are remembered, and how many are shown of those that last.
  static constexpr std::size_t kRemembered = 64;
  static constexpr std::size_t kShown = 1024;

  /// True when nothing of this kind was lost at this path: the caller tells MustScanSubDirs there. Otherwise it is counted only. What is
  /// lost for a new reason is said in the log.
  bool begin(LossKind kind, const std::string& path, const std::string& reason, const std::string& remedy);
  /// It is over at this path. True when it was there: recovered.
  bool end(LossKind kind, const std::string& path);
  /// What stood at the path is gone, with everything below it. Nothing has recovered, but no reader shall wait for that for ever.
  void forget(const std::string& path);
  /// What stood at the path is elsewhere now, with everything below it.
  void move(const std::string& from, const std::string& to);

  /// Whether anything is lost at the moment; costs one load.
  [[nodiscard]] bool any() const { return lasting_.load(std::memory_order_relaxed) != 0; }
  /// Whether there are notices to take; costs one load.
  [[nodiscard]] bool hasNotices() const { return hasNotices_.load(std::memory_order_acquire); }
  /// What has begun and ended since the last call, in order: one list for the whole stream, so one takes it for all. A path recovers when
  /// the last of its kinds is over.
  [[nodiscard]] std::vector<LossNotice> takeNotices();

  /// Adds "losses", an array of dictionaries "path", "reason", "remedy" (texts), "count" (how often it was met) and "lasting" (a boolean),
  /// those that last first; "lossesNotShown" (a number) where more than kShown last; and "unreadable", the paths without permission.
  void describe(Dictionary& entries) const;

 private:
  struct Record {
    std::string reason;
    std::string remedy;
    std::uint64_t count = 0;
  };
  /// Those of one kind that are not named one by one.
  struct Rest {
    std::string path;
    Record record;
    /// Hashes of their paths: a name would cost ten times as much.
    std::unordered_set<std::size_t> members;
    bool isUncounted = false;
    [[nodiscard]] bool lasts() const { return isUncounted || !members.empty(); }
  };
  using Places = std::map<std::string, Record, std::less<>>;
  struct Kind {
    Places lasting;
    Rest rest;
  };
  struct Past {
    std::string path;
    Record record;
  };

  Kind& of(LossKind kind) REQUIRES(mutex_) { return kinds_[static_cast<std::size_t>(kind)]; }
  bool beginAmongRest(Kind& kind, const std::string& path, Record record) REQUIRES(mutex_);
  void widenRest(Rest& rest, const std::string& path) REQUIRES(mutex_);
  void endRest(Kind& kind) REQUIRES(mutex_);
  void endAtAndBelow(Kind& kind, const std::string& path) REQUIRES(mutex_);
  void over(const std::string& path, Record record) REQUIRES(mutex_);
  [[nodiscard]] bool lastsAt(std::string_view path) const REQUIRES(mutex_);
  bool isNewInLog(const std::string& reason) REQUIRES(mutex_);
  void settle() REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::array<Kind, kLossKinds> kinds_ GUARDED_BY(mutex_);
  std::deque<Past> past_ GUARDED_BY(mutex_);
  LossNotices notices_ GUARDED_BY(mutex_);
  /// The last reasons that were said in the log.
  std::deque<std::string> logged_ GUARDED_BY(mutex_);
  std::atomic<std::size_t> lasting_{0};
  std::atomic<bool> hasNotices_{false};
};

}  // namespace platform::fsevents
