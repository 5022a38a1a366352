#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/xpc/channel/Credentials.h"
#include "platform/xpc/channel/Frame.h"
#include "platform/xpc/channel/IOThread.h"
#include "platform/xpc/channel/OutgoingFrame.h"
#include "platform/xpc/channel/SendQueue.h"
#include "platform/xpc/channel/SocketIO.h"
#include "platform/xpc/value/Value.h"

// Internal to the channel: frames over one connected socket.
namespace platform::xpc {

/// Reads and writes the frames of one socket. Ends by itself when the other end closes or breaks the rules, and tells that once.
///
/// | what happens               | Open                                         | Draining                         | Ended           |
/// |----------------------------|----------------------------------------------|----------------------------------|-----------------|
/// | setReading(true)           | hands over frames as they come               | hands over what is left -> Ended | nothing         |
/// | write                      | written or queued                            | dropped                          | dropped         |
/// | afterWriting               | called after what is queued                  | called at once                   | called at once  |
/// | the other end closes       | while reading -> Ended, else -> Draining     | -                                | -               |
/// | it breaks a rule or bound  | -> Ended                                     | -> Ended                         | -               |
/// | close                      | -> Ended                                     | -> Ended                         | nothing         |
///
/// The end handler is told of every end but that by `close`. Open has a socket and the others have none: the frames of a Draining channel
/// came before the other end went.
///
/// Threads: the I/O thread only, destruction included. Handlers run there and may do anything, `close` included. Owned by a connection or a
/// listener; its handlers refer to the owner weakly.
class Channel : public std::enable_shared_from_this<Channel> {
 public:
  enum class Side { Client, Service };
  using FrameHandler = std::function<void(Frame frame)>;
  /// `reason` says why, for people.
  using EndHandler = std::function<void(const std::string& reason)>;

  /// What a status request is answered with; what it throws ends the channel.
  using StatusSource = std::function<Value()>;

  /// Without a source of the status a request for it breaks the rules. A client must finish the frame that it began within `stallSeconds`,
  /// and begin its first one.
  static std::shared_ptr<Channel> create(FileHandle socket, Side side, StatusSource status = nullptr, double stallSeconds = 30);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// Called with every frame of the other side but the status requests that the channel answers itself.
  void setHandlers(FrameHandler frameHandler, EndHandler endHandler) REQUIRES(kIOThread);
  /// Called once when the socket has been closed, for whatever reason; before the end handler. For who counts sockets.
  void setClosedHandler(std::function<void()> closedHandler) REQUIRES(kIOThread) { closedHandler_ = std::move(closedHandler); }

  /// While not reading, the other side is slowed down.
  void setReading(bool reading) REQUIRES(kIOThread);
  /// Writes a frame, or queues it. A queue beyond SendQueue::kMaximumBytes ends the channel.
  void write(OutgoingFrame frame) REQUIRES(kIOThread);
  /// For who writes from another thread, and then hands what `add` returned to `added` on this one.
  [[nodiscard]] const std::shared_ptr<SendQueue>& sendQueue() const { return outgoing_; }
  void added(SendQueue::Added added) REQUIRES(kIOThread);
  /// Calls `block` when everything that was queued before is written, or at once when the channel ends.
  void afterWriting(std::function<void()> block) REQUIRES(kIOThread);
  void close() REQUIRES(kIOThread);
  /// Ends the channel as if the other end had; the end handler is told.
  void cutOff(const std::string& reason) REQUIRES(kIOThread);

  /// User and group from the start, all of it from the other side's first bytes on.
  [[nodiscard]] const Credentials& credentials() const REQUIRES(kIOThread) { return credentials_; }

  /// Who asks for the status again while this much waits for it to be read is cut off.
  static constexpr std::size_t kMaximumQueuedStatusBytes = std::size_t{256} << 10U;

 private:
  enum class State { Open, Draining, Ended };
  Channel(FileHandle socket, Side side, StatusSource status, double stallSeconds);
  // Called by the I/O thread's loop, and asserting that.
  void ready(unsigned events);
  void readScheduled();
  void stalled();

  void readSome() REQUIRES(kIOThread);
  void readTheRest() REQUIRES(kIOThread);
  void closeSocket() REQUIRES(kIOThread);
  /// What is in the read buffer. False when that ends the channel.
  bool takeIn(Received received) REQUIRES(kIOThread);
  bool dispatch() REQUIRES(kIOThread);
  void dispatchOne(Frame frame) REQUIRES(kIOThread);
  void answerStatus() REQUIRES(kIOThread);
  void updateInterest() REQUIRES(kIOThread);
  void updateStallTimer(bool newFrame) REQUIRES(kIOThread);
  void endOfStream() REQUIRES(kIOThread);
  void end(const std::string& reason) REQUIRES(kIOThread);
  void scheduleReading() REQUIRES(kIOThread);

  const Side side_;
  const StatusSource status_;
  const double stallSeconds_;
  const std::shared_ptr<SendQueue> outgoing_;

  State state_ GUARDED_BY(kIOThread);
  FileHandle socket_ GUARDED_BY(kIOThread);
  FrameHandler frameHandler_ GUARDED_BY(kIOThread);
  EndHandler endHandler_ GUARDED_BY(kIOThread);
  std::function<void()> closedHandler_ GUARDED_BY(kIOThread);

  FrameReader reader_ GUARDED_BY(kIOThread);
  /// Whether the owner wants frames, in whatever state.
  bool reading_ GUARDED_BY(kIOThread) = false;
  bool readScheduled_ GUARDED_BY(kIOThread) = false;
  bool hadFrame_ GUARDED_BY(kIOThread) = false;
  /// What the loop was asked for; nothing before it was asked.
  std::optional<unsigned> interest_ GUARDED_BY(kIOThread);
  Credentials credentials_ GUARDED_BY(kIOThread);
  bool hasCredentials_ GUARDED_BY(kIOThread) = false;

  std::shared_ptr<RunLoopDescriptor> item_ GUARDED_BY(kIOThread);
  std::shared_ptr<RunLoopTimer> stallTimer_ GUARDED_BY(kIOThread);
};

}  // namespace platform::xpc
