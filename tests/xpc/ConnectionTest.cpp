#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <future>
#include <stdexcept>
#include <tuple>

#include "platform/concurrency/queue/SerialQueue.h"
#include "platform/foundation/base/Exception.h"
#include "platform/xpc/connection/Connection.h"
#include "tests/support/Eventually.h"
#include "tests/xpc/InProcessService.h"

namespace {

using namespace kestrine::test;
using namespace std::chrono_literals;
using platform::Exception;
using platform::FileHandle;
using platform::SerialQueue;
using platform::xpc::Connection;
using platform::xpc::ConnectionError;
using platform::xpc::Value;

/// A peer's connection over one half of a socket pair; the other half is the raw client.
struct Pair {
  Pair() { std::tie(client, service) = socketPair(); }
  void open() {
    connection = Connection::createWithSocket(std::move(service));
    connection->setEventHandler(events.handler());
  }
  ~Pair() {
    if (connection) connection->cancel();
  }
  FileHandle client;
  FileHandle service;
  EventLog events;
  std::shared_ptr<Connection> connection;
};

TEST(Connection, HoldsItsEventsBackWhileItIsSuspended) {
  Pair pair;
  pair.open();
  ASSERT_TRUE(sendBytes(pair.client, commandFrame("first")));
  ASSERT_TRUE(readFrame(pair.client));
  EXPECT_EQ(pair.events.count(), 0U);
  pair.connection->suspend();
  pair.connection->resume();
  EXPECT_EQ(pair.events.count(), 0U);
  pair.connection->resume();
  EXPECT_EQ(commandOf(pair.events.at(0)), "first");
}

TEST(Connection, RefusesToBeResumedMoreOftenThanSuspended) {
  Pair pair;
  pair.open();
  pair.connection->resume();
  EXPECT_THROW(pair.connection->resume(), Exception);
}

TEST(Connection, KnowsThePeerByTheCredentialsOfItsFirstFrame) {
  Pair pair;
  pair.open();
  pair.connection->resume();
  ASSERT_TRUE(sendBytes(pair.client, commandFrame("first")));
  ASSERT_TRUE(pair.events.at(0));
  EXPECT_EQ(pair.connection->pid(), getpid());
  EXPECT_EQ(pair.connection->euid(), geteuid());
  EXPECT_EQ(pair.connection->egid(), getegid());
  EXPECT_EQ(pair.connection->asid(), ownAuditSession());
  EXPECT_EQ(pair.connection->name(), std::nullopt);
}

TEST(Connection, IsOverWhenTheFirstFrameCameWithoutCredentials) {
  Pair pair;
  // Sent before the other end wants credentials, so that the kernel does not add them either.
  ASSERT_TRUE(sendBytes(pair.client, commandFrame("who am I"), {}, false));
  pair.open();
  pair.connection->resume();
  const auto event = pair.events.at(0);
  EXPECT_EQ(errorKind(event), ConnectionError::Kind::Invalid);
  EXPECT_NE(errorText(event).find("its first message came without credentials"), std::string::npos) << errorText(event);
}

TEST(Connection, SendsItsOwnCredentialsWithItsFirstFrame) {
  Pair pair;
  const int on = 1;
  setsockopt(pair.client.fileDescriptor(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
  pair.open();
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
  std::array<char, 8> bytes{};
  iovec place{.iov_base = bytes.data(), .iov_len = bytes.size()};
  msghdr message{};
  message.msg_iov = &place;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ASSERT_EQ(recvmsg(pair.client.fileDescriptor(), &message, 0), 8);
  const cmsghdr* part = CMSG_FIRSTHDR(&message);
  ASSERT_NE(part, nullptr);
  ucred sender{};
  memcpy(&sender, CMSG_DATA(part), sizeof sender);
  EXPECT_EQ(sender.pid, getpid());
  EXPECT_EQ(sender.uid, geteuid());
}

TEST(Connection, SendsMessagesToThePeer) {
  Pair pair;
  pair.open();
  pair.connection->send(Value::dictionary({{"command", Value::string("hi")}}));
  ASSERT_TRUE(readFrame(pair.client));
  const auto message = readFrame(pair.client);
  ASSERT_TRUE(message);
  EXPECT_EQ(message->kind, kMessage);
  EXPECT_EQ(message->payload, encodedDictionary({{"command", "hi"}}));
}

TEST(Connection, RefusesMessagesThatAreNoneOrTooLarge) {
  Pair pair;
  pair.open();
  EXPECT_THROW(pair.connection->send(Value::string("no dictionary")), Exception);
  EXPECT_THROW(pair.connection->send(Value()), Exception);
  EXPECT_THROW(pair.connection->send(Value::dictionary({{"a", Value::string(std::string(16'777'216, 'x'))}})), Exception);
}

TEST(Connection, DeliversDescriptorsAsDuplicatesOfTheSameFileAndLeaksNone) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "content");
  const int before = countOwnDescriptors();
  {
    Pair pair;
    pair.open();
    pair.connection->resume();
    const FileHandle file(open((folder / "file").c_str(), O_RDONLY | O_CLOEXEC));
    const std::string payload = "\x0c" + little32(1) + little32(4) + "file" + "\x09";
    ASSERT_TRUE(sendBytes(pair.client, frame(kMessage, payload, 1), {file.fileDescriptor()}));
    const Value message = messageOf(pair.events.at(0));
    const FileHandle copy = message.find("file")->duplicateFileDescriptor();
    EXPECT_NE(copy.fileDescriptor(), file.fileDescriptor());
    EXPECT_EQ(fcntl(message.find("file")->fileDescriptorValue()->fileDescriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    std::array<char, 16> text{};
    EXPECT_EQ(pread(copy.fileDescriptor(), text.data(), text.size(), 0), 7);
    EXPECT_EQ(std::string(text.data()), "content");
    // Back again.
    ASSERT_TRUE(readFrame(pair.client));
    pair.connection->send(message);
    ASSERT_TRUE(readFrame(pair.client));
  }
  EXPECT_TRUE(eventually([&] { return countOwnDescriptors() <= before + 4; })) << countOwnDescriptors() - before;
}

TEST(Connection, TellsItsCancellationAsTheLastEvent) {
  Pair pair;
  pair.open();
  pair.connection->resume();
  pair.connection->cancel();
  pair.connection->cancel();
  const auto event = pair.events.at(0);
  EXPECT_EQ(errorKind(event), ConnectionError::Kind::Invalid);
  EXPECT_EQ(errorText(event), "Connection invalid: it was cancelled");
  EXPECT_TRUE(isClosed(pair.client));
  EXPECT_EQ(pair.events.count(), 1U);
  EXPECT_NO_THROW(pair.connection->send(Value::dictionary({})));
}

TEST(Connection, ReleasesItsHandlerAfterTheLastEvent) {
  Pair pair;
  pair.open();
  const auto token = std::make_shared<int>(1);
  pair.connection->setEventHandler([token](const platform::xpc::Event&) {});
  pair.connection->resume();
  EXPECT_EQ(token.use_count(), 2);
  pair.client.closeFile();
  EXPECT_TRUE(eventually([&] { return token.use_count() == 1; }));
}

TEST(Connection, IsSilentWhenItsOwnerLetsGoOfIt) {
  auto connection = Connection::create("No.Such.Service");
  EventLog events;
  connection->setEventHandler(events.handler());
  connection = nullptr;
  const auto queue = SerialQueue::create();
  queue->sync([] {});
  EXPECT_EQ(events.count(), 0U);
}

TEST(Connection, DeliversOnTheQueueItIsGiven) {
  Pair pair;
  pair.open();
  const auto queue = SerialQueue::create("target");
  std::promise<bool> onQueue;
  pair.connection->setEventHandler([&](const platform::xpc::Event& event) {
    if (std::holds_alternative<Value>(event)) onQueue.set_value(queue->isCurrent());
  });
  pair.connection->setTargetQueue(queue);
  pair.connection->resume();
  ASSERT_TRUE(sendBytes(pair.client, commandFrame("where")));
  EXPECT_TRUE(onQueue.get_future().get());
  pair.connection->cancel();
  queue->sync([] {});
}

TEST(Connection, LivesOnWhenItsHandlerThrows) {
  Pair pair;
  pair.open();
  std::promise<std::string> second;
  pair.connection->setEventHandler([&](const platform::xpc::Event& event) {
    const auto* message = std::get_if<Value>(&event);
    if (message == nullptr) return;
    const std::string text = message->find("command")->stringValue();
    if (text == "throw") throw std::runtime_error("as asked");
    second.set_value(text);
  });
  pair.connection->resume();
  ASSERT_TRUE(sendBytes(pair.client, commandFrame("throw") + commandFrame("after")));
  EXPECT_EQ(second.get_future().get(), "after");
}

TEST(Connection, RunsTheBarrierWhenEverythingBeforeItIsWritten) {
  Pair pair;
  pair.open();
  std::promise<void> written;
  // More than a socket takes at once, so that the barrier has something to wait for.
  const Value large = Value::dictionary({{"data", Value::data(platform::Data(8'000'000))}});
  pair.connection->send(large);
  pair.connection->sendBarrier([&] { written.set_value(); });
  auto barrier = written.get_future();
  ASSERT_TRUE(readFrame(pair.client));
  EXPECT_EQ(barrier.wait_for(0s), std::future_status::timeout);
  ASSERT_TRUE(readFrame(pair.client));
  EXPECT_EQ(barrier.wait_for(60s), std::future_status::ready);
}

TEST(Connection, RunsTheBarrierAlsoWhenTheConnectionIsOver) {
  Pair pair;
  pair.open();
  pair.connection->resume();
  pair.connection->cancel();
  std::promise<void> released;
  pair.connection->sendBarrier([&] { released.set_value(); });
  EXPECT_EQ(released.get_future().wait_for(60s), std::future_status::ready);
}

}  // namespace
