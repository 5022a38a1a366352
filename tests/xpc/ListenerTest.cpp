#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <stdexcept>
#include <thread>

#include "platform/foundation/process/StatusRegistry.h"
#include "platform/xpc/connection/Listener.h"
#include "tests/support/Eventually.h"
#include "tests/xpc/InProcessService.h"

namespace {

using namespace kestrine::test;
using namespace std::chrono_literals;
using platform::FileHandle;
using platform::Object;
using platform::StatusRegistry;
using platform::xpc::Connection;
using platform::xpc::ConnectionError;
using platform::xpc::Listener;
using platform::xpc::Value;

TEST(Listener, GreetsAPeerAndDeliversItsMessagesInOrder) {
  InProcessService service;
  const FileHandle client = service.connect();
  ASSERT_TRUE(sendBytes(client, commandFrame("first") + commandFrame("second")));
  const auto greeting = readFrame(client);
  ASSERT_TRUE(greeting);
  EXPECT_EQ(greeting->kind, kHello);
  EXPECT_EQ(greeting->payload, "");
  const auto peer = service.peer(0);
  EXPECT_EQ(commandOf(peer.events.at(0)), "first");
  EXPECT_EQ(commandOf(peer.events.at(1)), "second");
}

TEST(Listener, AsksForAConnectionOnlyWithTheFirstFrameThatIsNoStatusRequest) {
  const auto registration = StatusRegistry::shared().add("test", [] { return Object("fine"); });
  InProcessService service;
  const FileHandle client = service.connect();
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(sendBytes(client, frame(kStatusRequest)));
    const auto reply = readFrame(client);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->kind, kStatusReply);
    EXPECT_NE(reply->payload.find(encodedText("fine")), std::string::npos);
  }
  // The reply came, so the requests have been dealt with.
  EXPECT_EQ(service.peerCount(), 0U);
  EXPECT_EQ(service.listener().statistics().peers, 0U);
  EXPECT_EQ(service.listener().statistics().openSockets, 1U);
  ASSERT_TRUE(sendBytes(client, frame(kHello)));
  const auto peer = service.peer(0);
  ASSERT_TRUE(sendBytes(client, frame(kStatusRequest) + commandFrame("after")));
  EXPECT_EQ(commandOf(peer.events.at(0)), "after");
  EXPECT_EQ(service.listener().statistics().peers, 1U);
}

TEST(Listener, ReadsAPeersFramesOnlyAfterTheConnectionFunctionReturned) {
  std::promise<void> mayReturn;
  const auto returning = mayReturn.get_future().share();
  InProcessService service([returning](InProcessService::Peer&) { returning.wait(); });
  const FileHandle client = service.connect();
  ASSERT_TRUE(sendBytes(client, commandFrame("first") + commandFrame("second")));
  const auto peer = service.peer(0);
  std::this_thread::sleep_for(200ms);  // time in which a message that is let through too early would come
  EXPECT_EQ(peer.events.count(), 0U);
  mayReturn.set_value();
  EXPECT_EQ(commandOf(peer.events.at(0)), "first");
  EXPECT_EQ(commandOf(peer.events.at(1)), "second");
}

TEST(Listener, ClosesAConnectionThatItsFunctionNeitherKeptNorResumed) {
  TemporaryDirectory folder;
  const auto listener = Listener::create(listenAt(folder / "socket"), [](const std::shared_ptr<Connection>&) {});
  listener->resume();
  const FileHandle client = connectTo(folder / "socket");
  ASSERT_TRUE(sendBytes(client, commandFrame("hello")));
  EXPECT_TRUE(isClosed(client));
}

TEST(Listener, ClosesAConnectionWhoseFunctionThrew) {
  InProcessService service([](InProcessService::Peer&) { throw std::runtime_error("as asked"); });
  const FileHandle client = service.connect();
  ASSERT_TRUE(sendBytes(client, commandFrame("hello")));
  EXPECT_TRUE(isClosed(client));
  EXPECT_EQ(errorKind(service.peer(0).events.at(0)), ConnectionError::Kind::Invalid);
}

TEST(Listener, ClosesAConnectionWhoseFunctionThrewWhatIsNoException) {
  InProcessService service([](InProcessService::Peer&) { throw 42; });
  const FileHandle client = service.connect();
  ASSERT_TRUE(sendBytes(client, commandFrame("hello")));
  EXPECT_TRUE(isClosed(client));
  EXPECT_EQ(errorKind(service.peer(0).events.at(0)), ConnectionError::Kind::Invalid);
}

TEST(Listener, KeepsAResumedConnectionThatNobodyElseKeeps) {
  InProcessService service;
  const FileHandle client = service.connectPeer();
  const auto events = service.peer(0).events;
  const std::weak_ptr<Connection> connection = service.peer(0).connection;
  service.forgetPeers();
  ASSERT_TRUE(sendBytes(client, commandFrame("still there")));
  EXPECT_EQ(commandOf(events.at(0)), "still there");
  EXPECT_FALSE(connection.expired());
}

TEST(Listener, LetsGoOfAConnectionWhenItsClientIsGone) {
  InProcessService service;
  FileHandle client = service.connectPeer();
  const auto events = service.peer(0).events;
  const std::weak_ptr<Connection> connection = service.peer(0).connection;
  service.forgetPeers();
  client.closeFile();
  EXPECT_EQ(errorKind(events.at(0)), ConnectionError::Kind::Invalid);
  EXPECT_TRUE(eventually([&] { return connection.expired(); }));
  EXPECT_EQ(events.count(), 1U);
}

TEST(Listener, KeepsWhatAClientLeftThatIsGoneBeforeItIsReadButNotItsSocket) {
  constexpr std::size_t kMessages = 1500;  // more than wait for a handler before reading stops
  InProcessService service([](InProcessService::Peer& peer) { peer.connection->suspend(); });
  FileHandle client = service.connectPeer();
  std::string frames;
  for (std::size_t i = 0; i < kMessages; ++i) frames += commandFrame(std::to_string(i));
  ASSERT_TRUE(sendBytes(client, frames));
  client.closeFile();
  EXPECT_TRUE(eventually([&] { return service.listener().statistics().openSockets == 0; }));
  const auto peer = service.peer(0);
  EXPECT_EQ(peer.events.count(), 0U);
  peer.connection->resume();
  for (std::size_t i = 0; i < kMessages; ++i) ASSERT_EQ(commandOf(peer.events.at(i)), std::to_string(i));
  EXPECT_EQ(errorKind(peer.events.at(kMessages)), ConnectionError::Kind::Invalid);
}

TEST(Listener, LetsFurtherClientsWaitWhenThereAreTooMany) {
  InProcessService service({}, {.connections = 2});
  FileHandle first = service.connectPeer();
  const FileHandle second = service.connectPeer();
  const FileHandle third = service.connect();
  ASSERT_TRUE(sendBytes(third, commandFrame("patient")));
  std::this_thread::sleep_for(100ms);  // time in which a third one that is let in too early would come
  EXPECT_EQ(service.peerCount(), 2U);
  first.closeFile();
  EXPECT_EQ(commandOf(service.peer(2).events.at(0)), "patient");
}

TEST(Listener, TellsTheStatusToWhoWaits) {
  InProcessService service({}, {.connections = 1});
  const FileHandle first = service.connectPeer();
  const FileHandle waiting = service.connect();
  ASSERT_TRUE(sendBytes(waiting, frame(kStatusRequest)));
  const auto reply = readFrame(waiting);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->kind, kStatusReply);
  EXPECT_EQ(service.listener().statistics().openSockets, 1U) << "it has no place all the same";
}

TEST(Listener, HandsOverWhatAClientLeftThatIsGoneWhileItWaited) {
  InProcessService service({}, {.connections = 1});
  FileHandle first = service.connectPeer();
  {
    const FileHandle gone = service.connect();
    ASSERT_TRUE(sendBytes(gone, commandFrame("left")));
  }
  const FileHandle patient = service.connect();
  ASSERT_TRUE(sendBytes(patient, commandFrame("patient")));
  first.closeFile();
  EXPECT_EQ(commandOf(service.peer(1).events.at(0)), "left");
  EXPECT_EQ(commandOf(service.peer(2).events.at(0)), "patient");
  EXPECT_TRUE(eventually([&] { return service.listener().statistics().openSockets == 1; }));
}

TEST(Listener, ClosesTheNewestOfTooManyThatWait) {
  InProcessService service({}, {.connections = 1, .waiting = 2});
  FileHandle first = service.connectPeer();
  std::vector<FileHandle> waiting;
  for (int i = 0; i < 3; ++i) {
    waiting.push_back(service.connect());
    if (i < 2) {
      ASSERT_TRUE(sendBytes(waiting.back(), commandFrame(std::to_string(i))));
    }
  }
  EXPECT_TRUE(isClosed(waiting.back()));
  first.closeFile();
  EXPECT_EQ(commandOf(service.peer(1).events.at(0)), "0");
  waiting[0].closeFile();
  EXPECT_EQ(commandOf(service.peer(2).events.at(0)), "1");
  waiting[1].closeFile();
  EXPECT_TRUE(eventually([&] { return service.listener().statistics().openSockets == 0; }));
}

TEST(Listener, TellsEveryPeerThatTerminationIsImminent) {
  InProcessService service;
  const FileHandle first = service.connectPeer();
  const FileHandle second = service.connectPeer();
  std::promise<void> done;
  service.listener().terminate("a test", [&done] { done.set_value(); });
  ASSERT_EQ(done.get_future().wait_for(60s), std::future_status::ready);
  for (std::size_t i = 0; i < 2; ++i) {
    const auto event = service.peer(i).events.at(0);
    EXPECT_EQ(errorKind(event), ConnectionError::Kind::TerminationImminent);
    EXPECT_EQ(errorText(event), "Termination imminent: a test");
  }
  EXPECT_THROW(static_cast<void>(service.connect()), std::runtime_error);
}

TEST(Listener, StopsListeningBeforeCancelReturns) {
  InProcessService service;
  const FileHandle waiting = service.connect();
  service.listener().cancel();
  EXPECT_THROW(static_cast<void>(service.connect()), std::runtime_error);
  EXPECT_TRUE(isClosed(waiting));
}

TEST(Listener, LeavesPeersAloneWhenItIsDestroyed) {
  TemporaryDirectory folder;
  EventLog events;
  auto listener = Listener::create(listenAt(folder / "socket"), [events](const std::shared_ptr<Connection>& connection) {
    connection->setEventHandler(events.handler());
    connection->resume();
  });
  listener->resume();
  const FileHandle client = connectTo(folder / "socket");
  ASSERT_TRUE(sendBytes(client, commandFrame("before")));
  EXPECT_EQ(commandOf(events.at(0)), "before");
  listener = nullptr;
  ASSERT_TRUE(sendBytes(client, commandFrame("after")));
  EXPECT_EQ(commandOf(events.at(1)), "after");
}

}  // namespace
