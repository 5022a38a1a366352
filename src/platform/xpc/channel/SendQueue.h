#pragma once

#include <cstddef>
#include <deque>
#include <functional>

#include "platform/foundation/base/Mutex.h"
#include "platform/xpc/channel/IOThread.h"
#include "platform/xpc/channel/OutgoingFrame.h"

// Internal to the channel: frames on their way into one socket.
namespace platform::xpc {

/// The frames of one socket in the order of their adding. Whoever adds one while nothing waits writes it at once, on its own thread; what
/// the socket does not take then waits for `flush`. After a failed write, and after `close`, frames are dropped.
///
/// Owned by a channel, and shared with who sends past the I/O thread. Threads: any, but for what REQUIRES the I/O thread; no call blocks.
class SendQueue {
 public:
  /// `socket` stays the caller's, who closes it only after `close`.
  explicit SendQueue(int socket) : socket_(socket) {}

  enum class Added {
    /// Written, or behind others that wait, or dropped.
    Done,
    /// The first to wait: `flush` is needed when the socket takes more.
    Waits,
    /// More than kMaximumBytes wait, this frame included.
    TooMuch,
  };
  Added add(OutgoingFrame frame) EXCLUDES(mutex_);
  /// Writes what the socket takes, and calls the blocks of `afterWriting` that are due.
  void flush() REQUIRES(kIOThread) EXCLUDES(mutex_);
  /// Calls `block` when everything that was added before is written or dropped: at once, or from `flush` or `close`.
  void afterWriting(std::function<void()> block) REQUIRES(kIOThread) EXCLUDES(mutex_);
  /// Drops what waits and forgets the socket.
  void close() REQUIRES(kIOThread) EXCLUDES(mutex_);

  [[nodiscard]] bool isEmpty() const EXCLUDES(mutex_);
  [[nodiscard]] std::size_t bytes() const EXCLUDES(mutex_);

  static constexpr std::size_t kMaximumBytes = std::size_t{32} << 20U;

 private:
  struct Entry {
    OutgoingFrame frame;
    /// Stands in place of a frame.
    std::function<void()> marker;
  };
  /// One system call for the frames at the front. False when there is none to write, or the socket takes no more.
  bool writeSome() REQUIRES(mutex_);
  /// After a failed write: only what was to be called after the writing is left.
  void breakOff() REQUIRES(mutex_);

  mutable Mutex mutex_;
  int socket_ GUARDED_BY(mutex_);
  std::deque<Entry> entries_ GUARDED_BY(mutex_);
  std::size_t bytes_ GUARDED_BY(mutex_) = 0;
  bool sentCredentials_ GUARDED_BY(mutex_) = false;
  bool broken_ GUARDED_BY(mutex_) = false;
};

}  // namespace platform::xpc
