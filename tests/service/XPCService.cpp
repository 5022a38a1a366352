#include "service/XPCService.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <future>
#include <thread>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/concurrency/queue/OperationQueue.h"
#include "platform/foundation/process/NotificationCenter.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/xpc/connection/Listener.h"
#include "platform/xpc/connection/RunningCall.h"
#include "service/WatchOnMessage.h"
#include "tests/watcher/WatcherFixture.h"
#include "tests/xpc/RawSocket.h"
#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine::test {
namespace {

using platform::FileHandle;
using platform::Object;
using platform::xpc::Connection;
using ConnectionPointer = std::shared_ptr<XPCConnection>;

/// What a runner's handler was called with. Touched on the main queue only.
struct Handled {
  std::vector<ConnectionPointer> connections;
  int outsideTheMainQueue = 0;

  XPCService::ConnectionHandler handler() {
    return [this](const ConnectionPointer& connection) {
      connections.push_back(connection);
      if (platform::OperationQueue::currentQueue() != platform::OperationQueue::mainQueue()) ++outsideTheMainQueue;
    };
  }
};

/// A service in this process, whose peers reach the runners as the real one's do. The runners of a test live as long as the process does,
/// so each test is best run in its own; what they saw of an earlier test's peers is not counted.
class XPCServiceTest : public testing::Test {
 public:
  XPCServiceTest() : listener_(platform::xpc::Listener::create(listenAt(path()), XPCServiceConnectionHandler)) { listener_->resume(); }
  ~XPCServiceTest() override {
    listener_->cancel();
    // The handlers of this test refer to it.
    if (service_) service_->setConnectionHandler(nullptr);
  }

 protected:
  const std::shared_ptr<XPCService>& runner(XPCService::ConnectionHandler handler) {
    service_ = XPCService::initWithConnectionHandler(std::move(handler));
    return service_;
  }
  /// A client that has sent these bytes.
  [[nodiscard]] FileHandle client(const std::string& bytes) const {
    FileHandle socket = connectTo(path());
    EXPECT_TRUE(sendBytes(socket, bytes));
    return socket;
  }
  [[nodiscard]] std::string path() const { return folder_ / "socket"; }

 private:
  TemporaryDirectory folder_;
  std::shared_ptr<platform::xpc::Listener> listener_;
  std::shared_ptr<XPCService> service_;
};

TEST_F(XPCServiceTest, HasNoListBeforeTheFirstConnection) {
  EXPECT_EQ(runner(nullptr)->connections(), nullptr);
  EXPECT_FALSE(runner(nullptr)->connectionHandler());
}

TEST_F(XPCServiceTest, RecordsTwoPeersAndHandsThemOverOnTheMainQueue) {
  Handled handled;
  const auto service = runner(handled.handler());
  const FileHandle first = client(frame(kHello));
  const FileHandle second = client(frame(kHello));
  ASSERT_TRUE(runLoopUntil([&] { return handled.connections.size() == 2; }));
  EXPECT_EQ(handled.outsideTheMainQueue, 0);
  ASSERT_NE(service->connections(), nullptr);
  EXPECT_EQ(*service->connections(), handled.connections);
  EXPECT_NE(handled.connections[0], handled.connections[1]);
}

TEST_F(XPCServiceTest, RecordsWithoutAHandlerAndCallsNothing) {
  const auto service = runner(nullptr);
  const FileHandle peer = client(frame(kHello));
  ASSERT_TRUE(runLoopUntil([&] { return service->connections() && service->connections()->size() == 1; }));
}

TEST_F(XPCServiceTest, KeepsTheListWhenThePeerHasGone) {
  Handled handled;
  const auto service = runner(handled.handler());
  std::atomic<bool> gone = false;
  service->setConnectionHandler([&](const ConnectionPointer& connection) {
    connection->setErrorHandler([&](const auto&, const std::string&, const ConnectionPointer&) { gone = true; });
  });
  client(frame(kHello)).closeFile();
  ASSERT_TRUE(runLoopUntil([&] { return gone.load(); }));
  EXPECT_EQ(service->connections()->size(), 1U);
}

TEST_F(XPCServiceTest, HandsOverDirectlyToo) {
  Handled handled;
  const auto service = runner(handled.handler());
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const FileHandle other(ends[1]);
  const auto connection = XPCConnection::initWithConnection(Connection::createWithSocket(FileHandle(ends[0])));
  service->handleConnection(connection);
  service->handleConnection(connection);
  EXPECT_EQ(*service->connections(), (XPCService::Connections{connection, connection}));
  EXPECT_EQ(handled.connections.size(), 2U);
}

TEST_F(XPCServiceTest, PostsTheNotificationWithTheWrapper) {
  std::vector<ConnectionPointer> posted;
  auto observation = platform::NotificationCenter::defaultCenter().addObserver(
      "XPCConnectionReceivedNotification", nullptr,
      [&](const platform::Notification& notification) { posted.push_back(std::any_cast<ConnectionPointer>(notification.object)); });
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const FileHandle other(ends[1]);
  const auto connection = Connection::createWithSocket(FileHandle(ends[0]));
  XPCServiceConnectionHandler(connection);
  observation.remove();
  ASSERT_EQ(posted.size(), 1U);
  EXPECT_EQ(posted[0]->connection(), connection);
}

TEST_F(XPCServiceTest, DeliversTheFirstMessageOfEveryConnectionToTheHandlerSetOnTheMainQueue) {
  const int count = longOrShort(300, 60);
  std::mutex mutex;
  std::map<std::string, int> received;
  const auto service = runner([&](const ConnectionPointer& connection) {
    // The main queue may be slow; the message is there already.
    std::this_thread::yield();
    connection->setEventHandler([&](const Object& message, const ConnectionPointer&) {
      const std::lock_guard lock(mutex);
      ++received[message.objectForKey("command").stringValue()];
    });
  });
  std::vector<FileHandle> clients;
  clients.reserve(count);
  for (int i = 0; i < count; ++i) clients.push_back(client(commandFrame(std::to_string(i))));
  ASSERT_TRUE(runLoopUntil([&] {
    const std::lock_guard lock(mutex);
    return received.size() == static_cast<std::size_t>(count);
  }));
  const std::lock_guard lock(mutex);
  for (const auto& [command, times] : received) EXPECT_EQ(times, 1) << command;
}

class WatchOnMessageTest : public WatcherTest {};

TEST_F(WatchOnMessageTest, SetsTheEventHandlerAndNothingElse) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const FileHandle other(ends[1]);
  const auto connection = XPCConnection::initWithConnection(Connection::createWithSocket(FileHandle(ends[0])));
  startWatchOnEveryMessage(connection);
  EXPECT_TRUE(connection->eventHandler());
  EXPECT_FALSE(connection->errorHandler());
}

TEST_F(WatchOnMessageTest, TakesAnyMessageForARequestAndReturnsWhenThereIsNothingToWatch) {
  setBasePath("/Users/a b");
  const std::vector<Object> messages = {nullptr, platform::Dictionary(), platform::Dictionary{{"any", "thing"}}, Object("text")};
  for (const Object& message : messages) {
    CapturedLog log;
    startWatch(message, nullptr);
    EXPECT_EQ(beginningWith({"inside initFilewatcher"}, log.end()).size(), 1U) << message.description();
  }
  EXPECT_TRUE(statusSection("watches").empty()) << "each has a controller of its own, which is gone with it";
}

TEST_F(WatchOnMessageTest, StartsNoMoreWatchesThanCallsMayRun) {
  std::vector<std::shared_ptr<void>> running;
  while (auto call = platform::xpc::RunningCall::begin(0)) running.push_back(std::move(call));
  EXPECT_EQ(running.size(), 384U);
  CapturedLog log;
  startWatch(platform::Dictionary(), nullptr);
  EXPECT_EQ(beginningWith({"a message starts no watch: too many calls are running"}, log.end()).size(), 1U);
  EXPECT_TRUE(statusSection("watches").empty());
}

}  // namespace
}  // namespace kestrine::test
