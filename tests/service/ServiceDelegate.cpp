#include "service/ServiceDelegate.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "contract/FileWatcherXpcServiceProtocol.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/xpc/connection/Connection.h"
#include "platform/xpc/connection/XPCConnection.h"

namespace kestrine::test {
namespace {

/// The service's end of a connection whose other end is a socket of the test's.
class Peer {
 public:
  Peer() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    other_ = platform::FileHandle(ends[1]);
    connection_ = platform::XPCConnection::connectionWithPeer(platform::xpc::Connection::createWithSocket(platform::FileHandle(ends[0])));
  }
  [[nodiscard]] const std::shared_ptr<platform::XPCConnection>& connection() const { return connection_; }

 private:
  platform::FileHandle other_;
  std::shared_ptr<platform::XPCConnection> connection_;
};

class ServiceDelegateTest : public testing::Test {
 protected:
  bool accept(const Peer& peer) {
    return delegate_.listener_shouldAcceptNewConnection(platform::XPCListener::serviceListener(), peer.connection());
  }

  ServiceDelegate delegate_;
};

TEST_F(ServiceDelegateTest, AcceptsAndExportsTheOneOperation) {
  const Peer peer;
  EXPECT_TRUE(accept(peer));
  const platform::XPCInterface interface = peer.connection()->exportedInterface();
  EXPECT_EQ(interface.name(), "FileWatcherXpcServiceProtocol");
  EXPECT_TRUE(interface.hasOperation("callToFileWatcher"));
  EXPECT_NE(peer.connection()->exportedObjectAs<FileWatcherXpcServiceProtocol>(), nullptr);
}

TEST_F(ServiceDelegateTest, GivesEachConnectionAnObjectOfItsOwn) {
  const Peer first;
  const Peer second;
  EXPECT_TRUE(accept(first));
  EXPECT_TRUE(accept(second));
  EXPECT_NE(first.connection()->exportedObject(), nullptr);
  EXPECT_NE(second.connection()->exportedObject(), nullptr);
  EXPECT_NE(first.connection()->exportedObject(), second.connection()->exportedObject());
}

}  // namespace
}  // namespace kestrine::test
