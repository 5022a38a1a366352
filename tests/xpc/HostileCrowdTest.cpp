// A thousand peers at once, and peers that read slowly or not at all.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <fstream>

#include "platform/xpc/channel/ReceiveBudget.h"
#include "tests/support/Eventually.h"
#include "tests/xpc/Bystander.h"

namespace {

using namespace kestrine::test;
using namespace std::chrono_literals;
using platform::FileHandle;
using platform::xpc::ConnectionError;
using platform::xpc::ReceiveBudget;
using platform::xpc::Value;

/// Resident memory that is no file's (proc(5), RssAnon), in bytes.
std::size_t anonymousBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("RssAnon:")) return std::stoull(line.substr(8)) * 1024;
  }
  return 0;
}

/// As many descriptors as the process may have; whether that is `wanted`.
bool allowDescriptors(rlim_t wanted) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, std::max<rlim_t>(limit.rlim_cur, wanted));
  return setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= wanted;
}

TEST(HostileCrowd, OfAThousandConnectionsAtOnceDoesNotDisturbAnHonestClient) {
  if (!allowDescriptors(3000))
    GTEST_SKIP() << "left out: a thousand connections at once, because this process may not have 3,000 descriptors";
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  ASSERT_TRUE(bystander.isServed());
  const Footprint before;
  constexpr std::size_t kCrowd = 1000;
  {
    std::vector<FileHandle> crowd;
    for (std::size_t i = 0; i < kCrowd; ++i) {
      crowd.push_back(service.connect());
      // Silent, half a hello, a hello, half a message, a whole one.
      const std::string bytes[] = {"", frame(kHello).substr(0, 5), frame(kHello), commandFrame("half").substr(0, 20),
                                   commandFrame("whole")};
      ASSERT_TRUE(sendBytes(crowd.back(), bytes[i % std::size(bytes)]));
    }
    EXPECT_TRUE(eventually([&] { return service.listener().statistics().openSockets == kCrowd + 1; }, 60s));
    EXPECT_TRUE(bystander.isServed());
    // Two of five are peers, with nobody in front of them left out.
    EXPECT_TRUE(eventually([&] { return service.peerCount() == 1 + kCrowd * 2 / 5; }, 60s)) << service.peerCount();
    for (std::size_t i = 4; i < kCrowd; i += 5) {
      const auto greeting = readFrame(crowd[i]);
      ASSERT_TRUE(greeting && greeting->kind == kHello) << i;
    }
    EXPECT_TRUE(bystander.isServed());
  }
  EXPECT_TRUE(eventually([&] { return service.listener().statistics().openSockets == 1; }, 60s));
  EXPECT_TRUE(bystander.isServed());
  service.forgetPeers();
  EXPECT_TRUE(before.isBack()) << before.description();
  EXPECT_TRUE(eventually([] { return ReceiveBudget::totalBytes() == 0; }));
}

TEST(HostileCrowd, BeyondTheLimitWaitsAndIsServedWhenOthersGo) {
  InProcessService service(Bystander::answersTheFirst(), {.connections = 10});
  const Bystander bystander(service);
  std::vector<FileHandle> crowd;
  for (int i = 0; i < 30; ++i) {
    crowd.push_back(service.connect());
    ASSERT_TRUE(sendBytes(crowd.back(), commandFrame(std::to_string(i))));
  }
  EXPECT_TRUE(eventually([&] { return service.peerCount() == 10; }, 60s));
  EXPECT_TRUE(bystander.isServed());
  EXPECT_EQ(service.listener().statistics().openSockets, 10U);
  // One after another makes room for the next.
  for (std::size_t i = 0; i < crowd.size(); ++i) {
    EXPECT_EQ(messageOf(service.peer(i + 1).events.at(0)).find("command")->stringValue(), std::to_string(i));
    crowd[i].closeFile();
  }
  EXPECT_TRUE(bystander.isServed());
}

TEST(SlowReader, IsSentEverythingInOrderWhenItReadsByteByByte) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  const FileHandle slow = service.connectPeer();
  const auto peer = service.peer(1);
  const int messages = longOrShort(300, 60);
  for (int i = 0; i < messages; ++i) {
    peer.connection->send(Value::dictionary({{"number", Value::int64(i)}, {"text", Value::string(std::string(500, 'x'))}}));
  }
  for (int i = 0; i < messages; ++i) {
    const std::string expected =
        frame(kMessage, "\x0c" + little32(2) + little32(6) + "number" + "\x02" + little64(static_cast<unsigned>(i)) + little32(4) + "text" +
                            encodedText(std::string(500, 'x')));
    std::string got;
    while (got.size() < expected.size()) {
      const std::string byte = readBytes(slow, 1);
      ASSERT_EQ(byte.size(), 1U) << "the stream ended in message " << i;
      got += byte;
    }
    ASSERT_EQ(got, expected) << i;
  }
  EXPECT_TRUE(bystander.isServed());
}

TEST(SlowReader, CostsNoMoreMemoryThanItsBoundAndGivesItBack) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  ASSERT_TRUE(bystander.isServed());
  constexpr std::size_t kReaders = 3;
  constexpr std::size_t kMiB = std::size_t{1} << 20U;
  const std::size_t before = anonymousBytes();
  std::size_t most = before;
  {
    const Value large = Value::dictionary({{"data", Value::data(platform::Data(kMiB))}});
    std::vector<FileHandle> readers;
    for (std::size_t i = 0; i < kReaders; ++i) {
      readers.push_back(service.connectPeer());
      const auto peer = service.peer(i + 1);
      // Far more than may wait.
      for (int j = 0; j < 200 && peer.events.count() == 0; ++j) {
        peer.connection->send(large);
        most = std::max(most, anonymousBytes());
      }
      EXPECT_EQ(errorKind(peer.events.at(0)), ConnectionError::Kind::Invalid);
      EXPECT_NE(errorText(peer.events.at(0)).find("it does not read what is sent to it"), std::string::npos);
    }
  }
  EXPECT_TRUE(bystander.isServed());
  service.forgetPeers();
#ifndef KESTRINE_SANITIZED
  // 32 MiB wait for one; what the sender's thread made in the meantime, and what the allocator keeps, is as much again at most.
  EXPECT_LT(most - before, 200 * kMiB);
  EXPECT_TRUE(eventually([&] {
    malloc_trim(0);  // what only the allocator keeps is held by nobody
    return anonymousBytes() < before + 16 * kMiB;
  })) << anonymousBytes() - before;
#endif
}

TEST(SlowReader, OfTheStatusIsSlowedDownAndAnsweredWhole) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  const FileHandle slow = service.connect();
  // As much as waits without anybody being cut off: the kernel's buffers take the most of it.
  const int requests = 100;
  std::string all;
  for (int i = 0; i < requests; ++i) all += frame(kStatusRequest);
  ASSERT_TRUE(sendBytes(slow, all));
  for (int i = 0; i < requests; ++i) {
    const auto reply = readFrame(slow);
    ASSERT_TRUE(reply) << i;
    EXPECT_EQ(reply->kind, kStatusReply);
  }
  EXPECT_EQ(service.peerCount(), 1U) << "who only asks is no peer";
  EXPECT_TRUE(bystander.isServed());
}

}  // namespace
