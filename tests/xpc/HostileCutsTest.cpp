// Peers that stop or close at any byte, at either end of the channel.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "platform/xpc/channel/ReceiveBudget.h"
#include "tests/support/Eventually.h"
#include "tests/xpc/Bystander.h"

namespace {

using namespace kestrine::test;
using namespace std::chrono_literals;
using platform::FileHandle;
using platform::xpc::ConnectionError;
using platform::xpc::ReceiveBudget;

/// {"number": int64, "files": [descriptor, shared memory], "text": string}, two descriptors.
std::string richFrame() {
  const auto key = [](const std::string& text) { return little32(text.size()) + text; };
  const std::string files = "\x0b" + little32(2) + "\x09" + "\x0a" + little64(4096);
  return frame(kMessage,
               "\x0c" + little32(3) + key("number") + "\x02" + little64(7) + key("files") + files + key("text") + encodedText("some text"),
               2);
}

enum class Leave { Close, ShutDown, CloseWithUnreadBytes };

void leave(FileHandle& socket, Leave how) {
  if (how == Leave::ShutDown) shutdown(socket.fileDescriptor(), SHUT_WR);
  socket.closeFile();
}

TEST(HostilePeer, ThatClosesAtEveryByteOfAHandshakeLeavesNothingBehind) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  ASSERT_TRUE(bystander.isServed());
  const Footprint footprint;
  const std::string hello = frame(kHello);
  for (int round = 0; round < longOrShort(10, 2); ++round) {
    for (const Leave how : {Leave::Close, Leave::ShutDown, Leave::CloseWithUnreadBytes}) {
      for (std::size_t size = 0; size <= hello.size(); ++size) {
        FileHandle socket = service.connect();
        // Answered, and the answer is never read.
        const std::string before = how == Leave::CloseWithUnreadBytes ? frame(kStatusRequest) : "";
        ASSERT_TRUE(sendBytes(socket, before + hello.substr(0, size)));
        leave(socket, how);
      }
    }
  }
  EXPECT_TRUE(eventually([&] { return service.listener().statistics().openSockets == 1; }, 60s));
  EXPECT_TRUE(bystander.isServed());
  service.forgetPeers();
  EXPECT_TRUE(footprint.isBack()) << footprint.description();
  EXPECT_EQ(ReceiveBudget::totalDescriptors(), 0U);
}

TEST(HostilePeer, ThatClosesAtEveryByteOfAMessageHasTheMessageDroppedAndItsDescriptorsClosed) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  const FileHandle null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const Footprint before;
  const std::string whole = richFrame();
  ASSERT_GT(whole.size(), 70U);
  std::size_t index = 1;
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    FileHandle socket = service.connectPeer();
    const auto peer = service.peer(index++);
    ASSERT_TRUE(sendBytes(socket, whole.substr(0, size), {null.fileDescriptor(), null.fileDescriptor()}));
    leave(socket, size % 2 == 0 ? Leave::Close : Leave::ShutDown);
    const bool isWhole = size == whole.size();
    if (isWhole) {
      const auto message = messageOf(peer.events.at(0));
      EXPECT_EQ(message.find("text")->stringValue(), "some text");
    }
    const auto last = peer.events.at(isWhole ? 1 : 0);
    EXPECT_EQ(errorKind(last), ConnectionError::Kind::Invalid) << size;
    EXPECT_EQ(errorText(last).find("in the middle of a message") != std::string::npos, size > 0 && !isWhole) << size << errorText(last);
    EXPECT_EQ(peer.events.count(), isWhole ? 2U : 1U) << size;
  }
  EXPECT_TRUE(bystander.isServed());
  service.forgetPeers();
  EXPECT_TRUE(before.isBack()) << before.description();
  EXPECT_TRUE(eventually([] { return ReceiveBudget::totalDescriptors() == 0 && ReceiveBudget::totalBytes() == 0; }));
}

TEST(HostilePeer, ThatSendsEveryByteAloneIsUnderstood) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  const FileHandle null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const FileHandle socket = service.connectPeer();
  const auto peer = service.peer(1);
  const std::string whole = richFrame();
  for (std::size_t number = 0; number < 3; ++number) {
    ASSERT_TRUE(sendBytes(socket, whole.substr(0, 1), {null.fileDescriptor(), null.fileDescriptor()}));
    for (std::size_t i = 1; i < whole.size(); ++i) ASSERT_TRUE(sendBytes(socket, whole.substr(i, 1), {}, false));
    const auto message = messageOf(peer.events.at(number));
    EXPECT_EQ(message.find("number")->int64Value(), 7);
    EXPECT_EQ(message.find("files")->arrayValue().size(), 2U);
  }
  EXPECT_TRUE(bystander.isServed());
}

/// In the place of a service: greets and answers whom it accepts with the first `size` bytes of a hello and a message, and closes.
class CuttingService {
 public:
  CuttingService(const std::string& path, std::size_t size)
      : listener_(listenAt(path)), bytes_((frame(kHello) + commandFrame("an answer")).substr(0, size)), thread_([this] { serve(); }) {}
  ~CuttingService() {
    shutdown(listener_.fileDescriptor(), SHUT_RDWR);
    thread_.join();
  }
  CuttingService(const CuttingService&) = delete;
  CuttingService& operator=(const CuttingService&) = delete;
  [[nodiscard]] static std::size_t wholeSize() { return (frame(kHello) + commandFrame("an answer")).size(); }

 private:
  void serve() const {
    for (;;) {
      const FileHandle client(accept4(listener_.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!client.isOpen()) return;
      static_cast<void>(readFrame(client));
      sendBytes(client, bytes_);
    }
  }

  FileHandle listener_;
  std::string bytes_;
  std::thread thread_;
};

TEST(HostileService, ThatClosesAtEveryByteInterruptsItsClientAndLeavesNothingBehind) {
  ServiceEnvironment environment;
  environment.install("Test.Service");
  makeFolder(environment.socketFolder());
  // The first connection of a process starts the thread that serves them all.
  static_cast<void>(Client("Test.Unknown").ask("question"));
  const Footprint before;
  for (std::size_t size = 0; size <= CuttingService::wholeSize(); ++size) {
    const CuttingService service(environment.socketPath("Test.Service"), size);
    Client client("Test.Service");
    auto event = client.ask("question");
    if (size == CuttingService::wholeSize()) {
      EXPECT_EQ(messageOf(event).find("command")->stringValue(), "an answer");
      event = client.events.at(client.seen++);
    }
    EXPECT_EQ(errorKind(event), ConnectionError::Kind::Interrupted) << size;
    const bool isBetweenFrames = size == 0 || size == 8 || size == CuttingService::wholeSize();
    EXPECT_EQ(errorText(event).find("in the middle of a message") == std::string::npos, isBetweenFrames)
        << size << ": " << errorText(event);
    unlink(environment.socketPath("Test.Service").c_str());
  }
  EXPECT_TRUE(before.isBack()) << before.description();
}

}  // namespace
