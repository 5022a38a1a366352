#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/base/Mutex.h"
#include "platform/xpc/channel/Credentials.h"
#include "platform/xpc/channel/IOThread.h"
#include "platform/xpc/channel/SendQueue.h"
#include "platform/xpc/connection/Connection.h"
#include "platform/xpc/connection/Inbox.h"
#include "platform/xpc/connection/Link.h"

// Internal to the channel: what a Connection does.
namespace platform::xpc {

/// The machinery of one connection: an inbox towards the handler, and a link to the other end. Owned by its connection, and by what is
/// pending for it.
///
/// Threads: any, but for what REQUIRES the I/O thread.
class Connection::Core : public std::enable_shared_from_this<Connection::Core> {
 public:
  /// The client's end of the service `name`, or a peer's without one.
  explicit Core(std::optional<std::string> name);

  [[nodiscard]] static std::shared_ptr<Connection> makeConnection(std::shared_ptr<Core> core);
  ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;
  [[nodiscard]] Inbox& inbox() { return *inbox_; }
  [[nodiscard]] Link& link() REQUIRES(kIOThread) { return *link_; }
  [[nodiscard]] const std::optional<std::string>& name() const { return name_; }
  [[nodiscard]] Credentials credentials() const EXCLUDES(mutex_);

  void setGoneHandler(std::function<void()> handler) EXCLUDES(mutex_);
  void resume() EXCLUDES(mutex_);
  void send(OutgoingFrame frame) EXCLUDES(sendMutex_);
  void sendBarrier(std::function<void()> block);
  /// `tell`: whether the handler receives Invalid.
  void cancel(bool tell) EXCLUDES(mutex_);
  /// Tells the handler TerminationImminent, and calls `told` when it has returned.
  void terminate(const std::string& reason, std::function<void()> told);

  // For the listener.
  /// The peer's socket has closed.
  void gone() EXCLUDES(mutex_);

  // For the link.
  /// Who is at the other end, as far as is known.
  void identified(const Credentials& credentials) EXCLUDES(mutex_);
  /// From here on `send` writes to `queue` itself, after what is on its way to the I/O thread; with nullptr no more.
  void sendDirectly(std::shared_ptr<SendQueue> queue) EXCLUDES(sendMutex_);
  /// `last` is the handler's last event.
  void over(ConnectionError last) EXCLUDES(mutex_);

 private:
  void post(Outgoing outgoing) EXCLUDES(sendMutex_);

  const std::optional<std::string> name_;
  const std::shared_ptr<Inbox> inbox_;
  const std::unique_ptr<Link> link_;

  mutable Mutex mutex_;
  Credentials credentials_ GUARDED_BY(mutex_);
  std::weak_ptr<Connection> self_ GUARDED_BY(mutex_);
  bool over_ GUARDED_BY(mutex_) = false;
  bool gone_ GUARDED_BY(mutex_) = false;
  std::function<void()> goneHandler_ GUARDED_BY(mutex_);
  bool resumedOnce_ GUARDED_BY(mutex_) = false;

  /// Held while a frame is written past the I/O thread.
  Mutex sendMutex_;
  /// Where `send` may write at once: the channel's, while there is a greeted one.
  std::shared_ptr<SendQueue> direct_ GUARDED_BY(sendMutex_);
  /// What went by way of the I/O thread and has not arrived there: nothing may overtake it.
  int posted_ GUARDED_BY(sendMutex_) = 0;
};

}  // namespace platform::xpc
