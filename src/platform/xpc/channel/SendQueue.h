#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

#include "platform/xpc/channel/SocketIO.h"

// Internal to the channel: frames on their way into one socket.
namespace platform::xpc {

/// The frames of one socket in the order of their adding. Whoever adds one while nothing waits writes it at once, on its own thread; what
/// the socket does not take then waits for `flush`. After a failed write, and after `close`, frames are dropped.
///
/// Owned by a channel, and shared with who sends past the channel's thread. Threads: any, where nothing else is said; no call blocks.
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
  Added add(OutgoingFrame frame);
  /// Writes what the socket takes. The channel's thread only, since it calls blocks of `afterWriting`.
  void flush();
  /// Calls `block` when everything that was added before is written or dropped: at once, or from `flush` or `close`. The channel's thread
  /// only.
  void afterWriting(std::function<void()> block);
  /// Drops what waits and forgets the socket. The channel's thread only.
  void close();

  [[nodiscard]] bool isEmpty() const;
  [[nodiscard]] std::size_t bytes() const;

  static constexpr std::size_t kMaximumBytes = std::size_t{32} << 20U;

 private:
  struct Entry {
    OutgoingFrame frame;
    /// Stands in place of a frame.
    std::function<void()> marker;
  };
  /// One system call for the frames at the front; with the lock held. False when there is none to write, or the socket takes no more.
  bool writeSome();
  /// After a failed write, with the lock held; only what was to be called after the writing is left.
  void breakOff();

  mutable std::mutex mutex_;
  int socket_;
  std::deque<Entry> entries_;
  std::size_t bytes_ = 0;
  bool sentCredentials_ = false;
  bool broken_ = false;
};

}  // namespace platform::xpc
