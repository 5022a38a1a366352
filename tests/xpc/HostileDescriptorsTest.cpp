// Peers that send descriptors where none belong, or more than anybody wants.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/xpc/channel/ReceiveBudget.h"
#include "tests/support/Eventually.h"
#include "tests/xpc/Bystander.h"

namespace {

using namespace kestrine::test;
using namespace std::chrono_literals;
using platform::FileHandle;
using platform::xpc::ConnectionError;
using platform::xpc::ReceiveBudget;

/// A pipe whose writing end is given away: when nobody has it any more, the reading end is at its end.
class Tracer {
 public:
  Tracer() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("no pipe");
    reading_ = FileHandle(ends[0]);
    writing_ = FileHandle(ends[1]);
  }
  [[nodiscard]] int writingEnd() const { return writing_.fileDescriptor(); }
  /// Whether all others close theirs; waits for it. Closes the one here.
  [[nodiscard]] bool isClosedByAll() {
    writing_.closeFile();
    char byte = 0;
    const bool closed = eventually([&] { return read(reading_.fileDescriptor(), &byte, 1) == 0; }, 60s);
    reading_.closeFile();
    return closed;
  }

 private:
  FileHandle reading_;
  FileHandle writing_;
};

std::vector<int> times(int descriptor, std::size_t count) { return std::vector<int>(count, descriptor); }

TEST(HostileDescriptors, ThatAreAttachedToAnyByteOfAFrameWithoutThemAreClosedWithTheConnection) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  const Footprint before;
  Tracer tracer;
  const std::string whole = commandFrame("no descriptors");
  for (std::size_t place = 0; place < whole.size(); ++place) {
    const FileHandle socket = service.connectPeer();
    ASSERT_TRUE(sendBytes(socket, whole.substr(0, place)));
    ASSERT_TRUE(sendBytes(socket, whole.substr(place), {tracer.writingEnd()}));
    EXPECT_TRUE(isClosed(socket)) << place;
  }
  EXPECT_TRUE(tracer.isClosedByAll());
  EXPECT_TRUE(bystander.isServed());
  service.forgetPeers();
  EXPECT_TRUE(before.isBack()) << before.description();
}

TEST(HostileDescriptors, OfFramesOfAKindWithoutThemAreClosedWithTheConnection) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  for (const int kind : {kHello, kStatusRequest, kStatusReply, 0, 5, 255}) {
    for (const int promised : {0, 1}) {
      Tracer tracer;
      const FileHandle socket = service.connect();
      ASSERT_TRUE(sendBytes(socket, frame(kind, {}, promised), {tracer.writingEnd()}));
      EXPECT_TRUE(isClosed(socket)) << kind;
      EXPECT_TRUE(tracer.isClosedByAll()) << kind;
    }
  }
  EXPECT_TRUE(bystander.isServed());
  EXPECT_EQ(ReceiveBudget::totalDescriptors(), 0U);
}

TEST(HostileDescriptors, OfMessagesThatAreWrongAreClosed) {
  const std::string key = little32(1) + "k";
  struct Wrong {
    const char* what;
    std::string payload;
    int promised;
    std::size_t sent;
  };
  const Wrong table[] = {
      {"one more than the value takes", "\x0c" + little32(1) + key + "\x09", 2, 2},
      {"one less than promised", "\x0c" + little32(1) + key + "\x09", 2, 1},
      {"one less than the value takes", "\x0c" + little32(1) + key + "\x0b" + little32(2) + "\x09\x09", 1, 1},
      {"more than a frame may have", "\x0c" + little32(1) + key + "\x0b" + little32(65) + std::string(65, '\x09'), 65, 65},
      {"in a value that breaks off behind them", "\x0c" + little32(2) + key + "\x09" + key, 1, 1},
      {"in a value that is no dictionary", "\x09", 1, 1},
      {"under a key that was there", "\x0c" + little32(2) + key + "\x09" + key + "\x09", 2, 2},
  };
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  const Footprint before;
  std::size_t index = 1;
  for (const auto& [what, payload, promised, sent] : table) {
    Tracer tracer;
    const FileHandle socket = service.connectPeer();
    const auto peer = service.peer(index++);
    ASSERT_TRUE(sendBytes(socket, frame(kMessage, payload, promised), times(tracer.writingEnd(), sent)));
    EXPECT_TRUE(isClosed(socket)) << what;
    EXPECT_EQ(errorKind(peer.events.at(0)), ConnectionError::Kind::Invalid) << what;
    EXPECT_TRUE(tracer.isClosedByAll()) << what;
  }
  EXPECT_TRUE(bystander.isServed());
  service.forgetPeers();
  EXPECT_TRUE(before.isBack()) << before.description();
}

TEST(HostileDescriptors, ThatFollowAWholeFrameCloseTheConnectionBehindItsMessage) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  Tracer tracer;
  {
    const FileHandle socket = service.connectPeer();
    const auto events = service.peer(1).events;
    const std::string payload = "\x0c" + little32(1) + little32(1) + "k" + "\x09";
    ASSERT_TRUE(sendBytes(socket, frame(kMessage, payload, 1), times(tracer.writingEnd(), 2)));
    EXPECT_TRUE(isClosed(socket));
    EXPECT_TRUE(messageOf(events.at(0)).find("k") != nullptr);
    EXPECT_EQ(errorKind(events.at(1)), ConnectionError::Kind::Invalid);
  }
  service.forgetPeers();
  EXPECT_TRUE(tracer.isClosedByAll());
  EXPECT_TRUE(bystander.isServed());
}

// Frames that never end hold their descriptors; together no more than the process can spare.
TEST(HostileDescriptors, OfManyFramesThatAreNeverFinishedAreBounded) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  const Footprint before;
  Tracer tracer;
  constexpr int kPeers = 30;
  {
    std::vector<FileHandle> sockets;
    for (int i = 0; i < kPeers; ++i) {
      sockets.push_back(service.connectPeer());
      const int held = countOwnDescriptors();
      ASSERT_TRUE(sendBytes(sockets.back(), frame(kMessage, std::string(100, '\0'), 64).substr(0, 50), times(tracer.writingEnd(), 64)));
      // Either it is kept waiting, with its descriptors, or it is closed, without: the fifth and all that follow.
      if (i < 4) {
        ASSERT_TRUE(eventually([&] { return countOwnDescriptors() == held + 64; }, 60s)) << i;
      } else {
        ASSERT_TRUE(isClosed(sockets.back())) << i;
      }
      ASSERT_LE(ReceiveBudget::totalDescriptors(), 256U + 64U);
    }
    EXPECT_TRUE(bystander.isServed());
    const auto closed = std::ranges::count_if(sockets, [](const FileHandle& socket) {
      char byte = 0;
      return recv(socket.fileDescriptor(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
    });
    EXPECT_EQ(closed, kPeers - 4);
    EXPECT_TRUE(eventually([] { return ReceiveBudget::totalDescriptors() == 256; })) << ReceiveBudget::totalDescriptors();
  }
  EXPECT_TRUE(tracer.isClosedByAll());
  service.forgetPeers();
  EXPECT_TRUE(before.isBack()) << before.description();
  EXPECT_EQ(ReceiveBudget::totalDescriptors(), 0U);
}

TEST(HostileDescriptors, ThatKeepComingLeaveNothingBehind) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  const Footprint before;
  Tracer tracer;
  const std::string payload = "\x0c" + little32(1) + little32(1) + "k" + "\x0b" + little32(64) + std::string(64, '\x09');
  {
    const FileHandle socket = service.connectPeer();
    const auto peer = service.peer(1);
    // The handler takes each message and lets go of it.
    const auto taken = std::make_shared<std::atomic<int>>(0);
    peer.connection->setEventHandler([taken](const platform::xpc::Event&) { ++*taken; });
    const int rounds = longOrShort(1000, 200);
    for (int i = 0; i < rounds; ++i) ASSERT_TRUE(sendBytes(socket, frame(kMessage, payload, 64), times(tracer.writingEnd(), 64)));
    EXPECT_TRUE(eventually([&] { return *taken == rounds; }, 60s)) << *taken;
    EXPECT_TRUE(bystander.isServed());
  }
  EXPECT_TRUE(tracer.isClosedByAll());
  service.forgetPeers();
  EXPECT_TRUE(before.isBack()) << before.description();
}

}  // namespace
