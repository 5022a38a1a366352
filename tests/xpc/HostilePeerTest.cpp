#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

#include "platform/xpc/channel/ReceiveBudget.h"
#include "tests/support/Eventually.h"
#include "tests/xpc/InProcessService.h"

namespace {

using namespace kestrine::test;
using namespace std::chrono_literals;
using platform::FileHandle;
using platform::xpc::ConnectionError;
using platform::xpc::ReceiveBudget;
using platform::xpc::Value;

/// Whether a good peer is still served.
void expectService(InProcessService& service) {
  const std::size_t index = service.peerCount();
  const FileHandle good = service.connect();
  ASSERT_TRUE(sendBytes(good, commandFrame("good")));
  EXPECT_EQ(commandOf(service.peer(index).events.at(0)), "good");
}

TEST(HostilePeer, ThatSendsWrongFramesIsClosedAndNobodyElse) {
  const std::string text = little32(1) + "k";
  const std::vector<std::pair<std::string, std::string>> table{
      {"garbage", "\x93\x18\xA0\xFF\x01\x07garbage"},
      {"a line of another protocol", "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"},
      {"a length of 4 GiB", "\xFF\xFF\xFF\xFF" + std::string("\4\1\0\0", 4)},
      {"a length one beyond the bound", little32(16'777'217) + std::string("\4\1\0\0", 4)},
      {"an unknown kind of frame", frame(9)},
      {"a status reply", frame(kStatusReply, encodedDictionary({}))},
      {"a message that is no dictionary", frame(kMessage, encodedText("text"))},
      {"a message that is no value", frame(kMessage, "\xEE")},
      {"an empty message", frame(kMessage)},
      {"a key twice", frame(kMessage, "\x0c" + little32(2) + text + std::string("\0", 1) + text + std::string("\0", 1))},
      {"a promised descriptor that never comes", frame(kMessage, "\x0c" + little32(1) + text + "\x09", 1)},
  };
  InProcessService service;
  const FileHandle bystander = service.connectPeer();
  const auto events = service.peer(0).events;
  for (const auto& [name, bytes] : table) {
    const FileHandle first = service.connect();
    ASSERT_TRUE(sendBytes(first, bytes)) << name;
    EXPECT_TRUE(isClosed(first)) << name << ", as a first frame";
    const FileHandle later = service.connectPeer();
    ASSERT_TRUE(sendBytes(later, bytes)) << name;
    EXPECT_TRUE(isClosed(later)) << name << ", from a peer";
  }
  ASSERT_TRUE(sendBytes(bystander, commandFrame("unharmed")));
  EXPECT_EQ(commandOf(events.at(0)), "unharmed");
}

TEST(HostilePeer, ThatStopsInTheMiddleOfAFrameHoldsNobodyUp) {
  InProcessService service;
  std::vector<FileHandle> silent;
  const std::string whole = commandFrame("never finished");
  for (std::size_t size = 0; size < whole.size(); ++size) {
    silent.push_back(service.connect());
    ASSERT_TRUE(sendBytes(silent.back(), whole.substr(0, size)));
  }
  expectService(service);
  EXPECT_EQ(service.peerCount(), 1U);
}

TEST(HostilePeer, ThatConnectsTenThousandTimesLeavesNothingBehind) {
  InProcessService service;
  expectService(service);
  const int before = countOwnDescriptors();
  const int rounds = longOrShort(10'000, 2'000);
  for (int i = 0; i < rounds; ++i) {
    const FileHandle client = service.connect();
    // Every kind of short visit: silent, half a frame, garbage.
    if (i % 4 == 1) sendBytes(client, "\x10");
    if (i % 4 == 2) sendBytes(client, "garbage");
    if (i % 4 == 3) sendBytes(client, frame(kStatusRequest));
  }
  // One more than these has been asked for the service before. The last ones wait to be accepted when nothing is open yet.
  const auto visits = static_cast<std::uint64_t>(rounds) + 1;
  EXPECT_TRUE(eventually([&] { return service.listener().statistics().accepted == visits; }, 60s))
      << service.listener().statistics().accepted << " of " << visits;
  EXPECT_TRUE(eventually([&] { return service.listener().statistics().openSockets <= 1; }, 60s));
  EXPECT_TRUE(eventually([&] { return countOwnDescriptors() <= before; })) << countOwnDescriptors() << " and before " << before;
  expectService(service);
}

TEST(HostilePeer, ThatDoesNotReadIsClosedWhenTooMuchWaits) {
  InProcessService service;
  const FileHandle slow = service.connectPeer();
  const auto peer = service.peer(0);
  const Value large = Value::dictionary({{"data", Value::data(platform::Data(4'000'000))}});
  for (int i = 0; i < 12; ++i) peer.connection->send(large);
  const auto event = peer.events.at(0);
  EXPECT_EQ(errorKind(event), ConnectionError::Kind::Invalid);
  EXPECT_NE(errorText(event).find("it does not read what is sent to it"), std::string::npos) << errorText(event);
  expectService(service);
}

TEST(HostilePeer, ThatAsksForTheStatusWithoutReadingIsClosed) {
  InProcessService service;
  const FileHandle slow = service.connect();
  std::string requests;
  for (int i = 0; i < 1000; ++i) requests += frame(kStatusRequest);
  // Until the other end has closed; a bounded number, so that a service that takes them all fails the test.
  bool closed = false;
  for (int i = 0; i < 10'000 && !closed; ++i) closed = !sendBytes(slow, requests);
  EXPECT_TRUE(closed);
  expectService(service);
}

TEST(HostilePeer, ThatFloodsABusyHandlerIsSlowedDownAndLosesNothing) {
  std::promise<void> mayGoOn;
  const auto goingOn = mayGoOn.get_future().share();
  // Only the first peer's handler is busy.
  InProcessService service([goingOn, first = std::make_shared<std::atomic<bool>>(true)](InProcessService::Peer& peer) {
    if (!first->exchange(false)) return;
    peer.connection->setEventHandler([goingOn, handler = peer.events.handler()](const platform::xpc::Event& event) {
      goingOn.wait();
      handler(event);
    });
  });
  const FileHandle flooder = service.connectPeer();
  fcntl(flooder.fileDescriptor(), F_SETFL, O_NONBLOCK);
  const std::string message = frame(kMessage, encodedDictionary({{"command", std::string(100'000, 'x')}}));
  std::size_t sent = 0;
  const std::size_t enough = std::size_t{64} << 20U;
  // Until nothing was taken for a while: the service has stopped reading.
  for (int patience = 0; patience < 50 && sent < enough;) {
    const std::size_t offset = sent % message.size();
    const ssize_t size = send(flooder.fileDescriptor(), message.data() + offset, message.size() - offset, MSG_NOSIGNAL);
    if (size > 0) {
      sent += static_cast<std::size_t>(size);
      patience = 0;
    } else {
      ++patience;
      std::this_thread::sleep_for(10ms);
    }
  }
  EXPECT_LT(sent, enough);
  expectService(service);
  mayGoOn.set_value();
  const std::size_t whole = sent / message.size();
  ASSERT_GT(whole, 0U);
  const auto peer = service.peer(0);
  EXPECT_TRUE(eventually([&] { return peer.events.count() >= whole; }, 60s)) << peer.events.count() << " of " << whole;
}

TEST(HostilePeer, ThatFloodsWithDescriptorsLeavesTheProcessEnough) {
  std::promise<void> mayGoOn;
  const auto goingOn = mayGoOn.get_future().share();
  constexpr int kFlooders = 20;
  InProcessService service([goingOn, left = std::make_shared<std::atomic<int>>(kFlooders)](InProcessService::Peer& peer) {
    if (left->fetch_sub(1) <= 0) return;
    peer.connection->setEventHandler([goingOn](const platform::xpc::Event&) { goingOn.wait(); });
  });
  const FileHandle null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const std::vector<int> many(64, null.fileDescriptor());
  const int before = countOwnDescriptors();
  {
    std::vector<FileHandle> flooders;
    const std::string payload = "\x0c" + little32(1) + little32(1) + "k" + "\x0b" + little32(64) + std::string(64, '\x09');
    for (int i = 0; i < kFlooders; ++i) {
      flooders.push_back(service.connectPeer());
      const timeval limit{.tv_sec = 0, .tv_usec = 100'000};
      setsockopt(flooders.back().fileDescriptor(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
      for (int j = 0; j < 20; ++j) {
        if (!sendBytes(flooders.back(), frame(kMessage, payload, 64), many)) break;
      }
    }
    // Descriptors that wait, those of the two ends of each connection, and the few that one read may bring before it is noticed.
    EXPECT_LE(countOwnDescriptors(), before + 256 + 64 + 64 + 2 * kFlooders + 16);
    expectService(service);
  }
  mayGoOn.set_value();
  EXPECT_TRUE(eventually([&] { return ReceiveBudget::totalDescriptors() == 0; }, 60s)) << ReceiveBudget::totalDescriptors();
  EXPECT_TRUE(eventually([&] { return countOwnDescriptors() <= before; }, 60s)) << countOwnDescriptors() << " and before " << before;
}

TEST(HostilePeer, ThatSendsMoreDescriptorsThanOneMessageMayHoldIsClosed) {
  InProcessService service;
  const FileHandle null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const FileHandle client = service.connectPeer();
  const int before = countOwnDescriptors();
  ASSERT_TRUE(sendBytes(client, frame(kMessage, encodedDictionary({}), 64), std::vector<int>(253, null.fileDescriptor())));
  EXPECT_TRUE(isClosed(client));
  EXPECT_TRUE(eventually([&] { return countOwnDescriptors() < before; }));
}

/// How often the thread of that name in this process went to sleep so far.
long sleepsOfThread(const std::string& name) {
  long sleeps = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream status(task.path() / "status");
    bool isIt = false;
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("Name:")) isIt = line.substr(6) == name;
      if (isIt && line.starts_with("voluntary_ctxt_switches:")) sleeps += std::stol(line.substr(24));
    }
  }
  return sleeps;
}

TEST(Listener, WaitsForDescriptorsWithoutSpinningWhenTheProcessHasNone) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP()
      << "left out: a process without descriptors, because the undefined-behaviour sanitizer asks after a dynamic type through a pipe "
         "of its own (the other builds have it)";
#endif
  InProcessService service;
  expectService(service);
  std::vector<FileHandle> clients;
  clients.reserve(4);
  for (int i = 0; i < 4; ++i) clients.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  rlimit former{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
  // The lowest free number is the limit, so that nothing more can be opened.
  const int lowestFree = dup(STDIN_FILENO);
  close(lowestFree);
  const rlimit none{.rlim_cur = static_cast<rlim_t>(lowestFree), .rlim_max = former.rlim_max};
  const std::size_t already = service.peerCount();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(service.path().size(), sizeof address.sun_path);
  service.path().copy(address.sun_path, sizeof address.sun_path);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  for (const FileHandle& client : clients) {
    EXPECT_EQ(connect(client.fileDescriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    sendBytes(client, commandFrame("in need"));
  }
  std::this_thread::sleep_for(300ms);  // time in which it would spin
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &former), 0);
  const long asleep = sleepsOfThread("xpc-io");
  for (std::size_t i = 0; i < clients.size(); ++i) EXPECT_EQ(commandOf(service.peer(already + i).events.at(0)), "in need");
  EXPECT_GT(asleep, 0);
}

TEST(Listener, SleepsWhileNothingHappens) {
  InProcessService service;
  const FileHandle idle = service.connectPeer();
  const auto peer = service.peer(0);
  ASSERT_TRUE(sendBytes(idle, commandFrame("last")));
  ASSERT_TRUE(peer.events.at(0));
  // The thread settles, and then not one wake-up more.
  long sleeps = -1;
  ASSERT_TRUE(eventually([&] {
    const long before = std::exchange(sleeps, sleepsOfThread("xpc-io"));
    std::this_thread::sleep_for(50ms);
    return before == sleeps;
  }));
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(sleepsOfThread("xpc-io"), sleeps);
}

}  // namespace
