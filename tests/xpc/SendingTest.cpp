#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/xpc/connection/Connection.h"
#include "tests/support/Eventually.h"
#include "tests/xpc/RawSocket.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace {

using namespace kestrine::test;
using platform::FileHandle;
using platform::xpc::Connection;

/// The text of a message's only entry: a number of its sender, a space, and its own number.
std::string numbered(int sender, int number) {
  return std::to_string(sender) + " " + std::to_string(number) + std::string(static_cast<std::size_t>(number) % 500, '.');
}

TEST(Sending, KeepsTheOrderOfEachThreadWhetherTheSocketTakesItAtOnceOrLater) {
  constexpr int kSenders = 4;
  const int each = longOrShort(5000, 1000);
  auto [client, service] = socketPair();
  const auto connection = Connection::createWithSocket(std::move(service));
  std::vector<std::thread> senders;
  senders.reserve(kSenders);
  for (int sender = 0; sender < kSenders; ++sender) {
    senders.emplace_back([&connection, sender, each] {
      for (int number = 0; number < each; ++number) connection->send(command(numbered(sender, number)));
    });
  }
  const auto greeting = readFrame(client);
  ASSERT_TRUE(greeting);
  EXPECT_EQ(greeting->kind, kHello) << "something overtook the greeting";
  std::map<int, int> next;
  bool inOrder = true;
  for (int i = 0; i < kSenders * each && inOrder; ++i) {
    const auto frame = readFrame(client);
    inOrder = false;
    for (int sender = 0; frame && sender < kSenders && !inOrder; ++sender) {
      inOrder = frame->payload == encodedDictionary({{"command", numbered(sender, next[sender])}});
      if (inOrder) ++next[sender];
    }
    EXPECT_TRUE(inOrder) << "message " << i << " is none that was next";
  }
  for (std::thread& sender : senders) sender.join();
  for (int sender = 0; sender < kSenders && inOrder; ++sender) EXPECT_EQ(next[sender], each);
  connection->cancel();
}

TEST(Sending, KeepsTheOrderWhileTheConnectionOpens) {
  constexpr int kMessages = 300;
  const int rounds = longOrShort(200, 50);
  bool inOrder = true;
  for (int round = 0; round < rounds && inOrder; ++round) {
    auto [client, service] = socketPair();
    // What is sent at once is on its way to the thread that opens it, when the sender may begin to write itself.
    const auto connection = Connection::createWithSocket(std::move(service));
    for (int number = 0; number < kMessages; ++number) connection->send(command(numbered(0, number)));
    ASSERT_TRUE(readFrame(client)) << "no greeting";
    for (int number = 0; number < kMessages && inOrder; ++number) {
      const auto frame = readFrame(client);
      ASSERT_TRUE(frame);
      inOrder = frame->payload == encodedDictionary({{"command", numbered(0, number)}});
      EXPECT_TRUE(inOrder) << "message " << number << " of round " << round;
    }
    connection->cancel();
  }
}

TEST(Sending, GoesOnBehindABarrier) {
  auto [client, service] = socketPair();
  const auto connection = Connection::createWithSocket(std::move(service));
  ASSERT_TRUE(readFrame(client));
  constexpr int kRounds = 200;
  std::atomic<int> barriers = 0;
  for (int round = 0; round < kRounds; ++round) {
    connection->send(command(numbered(0, round)));
    connection->sendBarrier([&barriers] { ++barriers; });
  }
  for (int round = 0; round < kRounds; ++round) {
    const auto frame = readFrame(client);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->payload, encodedDictionary({{"command", numbered(0, round)}}));
  }
  EXPECT_TRUE(eventually([&barriers] { return barriers == kRounds; }));
  connection->cancel();
}

TEST(Sending, ToAnEndThatIsGoneIsNoFailureOfTheSender) {
  auto [client, service] = socketPair();
  EventLog events;
  const auto connection = Connection::createWithSocket(std::move(service));
  connection->setEventHandler(events.handler());
  connection->resume();
  ASSERT_TRUE(sendBytes(client, commandFrame("last words")));
  ASSERT_TRUE(readFrame(client));
  std::thread sender([&connection] {
    for (int number = 0; number < 2000; ++number) connection->send(command(numbered(0, number)));
  });
  client.closeFile();
  sender.join();
  EXPECT_EQ(messageOf(events.at(0)).find("command")->stringValue(), "last words");
  EXPECT_EQ(errorKind(events.at(1)), platform::xpc::ConnectionError::Kind::Invalid);
}

}  // namespace
