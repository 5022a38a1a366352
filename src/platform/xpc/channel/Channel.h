#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/concurrency/RunLoop.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/xpc/channel/Credentials.h"
#include "platform/xpc/channel/Frame.h"
#include "platform/xpc/channel/SendQueue.h"
#include "platform/xpc/channel/SocketIO.h"

// Internal to the channel: frames over one connected socket.
namespace platform::xpc {

/// Reads and writes the frames of one socket. Ends by itself when the other end closes or breaks the rules, and tells that once.
///
/// Threads: the I/O thread only, destruction included. Handlers run there and may do anything, `close` included. Owned by a connection or a
/// listener; its handlers refer to the owner weakly.
class Channel : public std::enable_shared_from_this<Channel> {
 public:
  enum class Side { Client, Service };
  using FrameHandler = std::function<void(Frame frame)>;
  /// `reason` says why, for people.
  using EndHandler = std::function<void(const std::string& reason)>;

  static std::shared_ptr<Channel> create(FileHandle socket, Side side);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// Called with every frame of the other side but status requests at the service's side, which the channel answers itself.
  void setHandlers(FrameHandler frameHandler, EndHandler endHandler);
  /// Called once when the socket has been closed, for whatever reason; before the end handler. For who counts sockets.
  void setClosedHandler(std::function<void()> closedHandler) { closedHandler_ = std::move(closedHandler); }

  /// While not reading, the other side is slowed down. Frames that are already here are kept, also when the other side goes: its socket is
  /// closed then, but what it left is handed over first when there is reading again, and its end told after it.
  void setReading(bool reading);
  /// Writes a frame, or queues it. A queue beyond SendQueue::kMaximumBytes ends the channel.
  void write(OutgoingFrame frame);
  /// For who writes from another thread, and then hands what `add` returned to `added` on this one.
  [[nodiscard]] const std::shared_ptr<SendQueue>& sendQueue() const { return outgoing_; }
  void added(SendQueue::Added added);
  /// Calls `block` when everything that was queued before is written, or at once when the channel ends.
  void afterWriting(std::function<void()> block);
  /// Closes the socket without telling the end handler.
  void close();

  [[nodiscard]] bool isOpen() const { return !ended_; }
  /// User and group from the start, all of it from the other side's first bytes on.
  [[nodiscard]] const Credentials& credentials() const { return credentials_; }
  [[nodiscard]] bool hasCredentials() const { return hasCredentials_; }

  /// A client must finish the frame that it began within this time, and begin its first one.
  static constexpr double kStallSeconds = 30;
  /// Who asks for the status again while this much waits for it to be read is cut off.
  static constexpr std::size_t kMaximumQueuedStatusBytes = std::size_t{256} << 10U;

 private:
  Channel(FileHandle socket, Side side);
  void ready(unsigned events);
  void readSome();
  void readTheRest();
  void closeSocket();
  bool accept(Received received, std::span<const std::byte> bytes);
  bool dispatch();
  void dispatchOne(Frame frame);
  void answerStatus();
  void updateInterest();
  void updateStallTimer(bool newFrame);
  void endOfStream();
  void end(const std::string& reason);
  void scheduleReading();

  FileHandle socket_;
  const Side side_;
  FrameHandler frameHandler_;
  EndHandler endHandler_;
  std::function<void()> closedHandler_;

  const std::shared_ptr<SendQueue> outgoing_;

  FrameReader reader_;
  bool ended_ = false;
  bool reading_ = false;
  bool readScheduled_ = false;
  bool hadFrame_ = false;
  /// What the loop was asked for; nothing before it was asked.
  std::optional<unsigned> interest_;
  Credentials credentials_;
  bool hasCredentials_ = false;

  std::shared_ptr<RunLoopDescriptor> item_;
  std::shared_ptr<RunLoopTimer> stallTimer_;
};

}  // namespace platform::xpc
