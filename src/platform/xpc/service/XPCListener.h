#pragma once

#include <memory>

namespace platform {

class XPCConnection;
class XPCListener;

/// Decides about new peers.
struct XPCListenerDelegate {
  virtual ~XPCListenerDelegate() = default;
  /// Sets the connection up (exported interface and object), resumes it and returns true; a connection that is answered with false is
  /// closed. Nothing that the peer sent is looked at before this returned. Called on a queue of the listener's own, one peer at a time.
  virtual bool listener_shouldAcceptNewConnection(XPCListener& listener, const std::shared_ptr<XPCConnection>& newConnection) = 0;
};

/// Receives the service's peers at object level.
/// Threads: `resume` on the main thread, the rest anywhere.
class XPCListener {
 public:
  /// The process's one listener; never destroyed.
  static XPCListener& serviceListener();

  XPCListener(const XPCListener&) = delete;
  XPCListener& operator=(const XPCListener&) = delete;

  /// The delegate is not kept alive: its owner does that. Without one every peer is refused.
  void setDelegate(std::weak_ptr<XPCListenerDelegate> delegate);
  [[nodiscard]] std::shared_ptr<XPCListenerDelegate> delegate() const;

  /// Serves until the process ends, running the main run loop; see xpc::ServiceProcess, whose `begin` has been called before. Does not
  /// return.
  void resume();

 private:
  XPCListener();
  ~XPCListener();
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform
