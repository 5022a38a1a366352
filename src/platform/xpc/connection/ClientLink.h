#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <string>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"
#include "platform/xpc/connection/Link.h"
#include "platform/xpc/launch/ServiceLauncher.h"

// Internal to the channel: the client's end.
namespace platform::xpc {

/// The link to the service of a name: opened with the first message, again when the service is gone before it greeted, and again with the
/// first message after an interruption.
class ClientLink final : public Link {
 public:
  ClientLink(Connection::Core& core, std::string name);

  /// Looks whether the name is known, before there is a message.
  void resumed() override;
  void send(Outgoing outgoing) override REQUIRES(kIOThread);
  void connected(std::shared_ptr<Channel> channel) override REQUIRES(kIOThread);

 private:
  void greeted() override REQUIRES(kIOThread);
  void ended(const std::string& reason) override REQUIRES(kIOThread);
  void dropKept() override REQUIRES(kIOThread);
  void keep(Outgoing outgoing) REQUIRES(kIOThread);
  void open() REQUIRES(kIOThread);
  /// I/O thread.
  void opened(Result<FileHandle, LaunchError> socket);
  void interrupt(const std::string& reason) REQUIRES(kIOThread);

  const std::string name_;
  std::deque<Outgoing> kept_ GUARDED_BY(kIOThread);
  std::size_t keptBytes_ GUARDED_BY(kIOThread) = 0;
  int attempts_ GUARDED_BY(kIOThread) = 0;
};

}  // namespace platform::xpc
