// Clients that come and go: one watch of a folder for each that is there, never none because they have gone, and nothing that piles up,
// with either way in which the service is hosted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <sstream>
#include <utility>

#include "platform/xpc/service/ServiceStatusQuery.h"
#include "tests/system/WatcherFixture.h"
#include "tests/xpc/RawSocket.h"

namespace kestrine::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class WatcherClients : public WatcherService, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    setBasePath(base());
    if (GetParam()[0] != '\0') setenv("KESTRINE_SYSTEM_VERSION", GetParam(), 1);
    startService();
  }

  static std::string call() {
    return frame(kMessage, encodedDictionary({{"interface", "FileWatcherXpcServiceProtocol"}, {"selector", "callToFileWatcher"}}));
  }
  /// The same with so many descriptors.
  static std::string callWith(int descriptors) {
    std::string array = std::string("\x0b", 1) + little32(static_cast<std::uint64_t>(descriptors));
    array += std::string(static_cast<std::size_t>(descriptors), '\x09');
    return messageWith(array, descriptors);
  }
  /// The same with so many bytes.
  static std::string callOf(std::size_t bytes) { return messageWith("\x06" + little32(bytes) + std::string(bytes, 'x'), 0); }

  /// A client that has asked for a watch and was greeted.
  [[nodiscard]] platform::FileHandle client(const std::string& message = call(), const std::vector<int>& descriptors = {}) const {
    platform::FileHandle socket = connectTo(folder("run/xpc/") + kServiceName);
    if (!sendBytes(socket, message, descriptors) || !readFrame(socket)) return platform::FileHandle();
    return socket;
  }

  /// The numbers of the watches that stand.
  static std::vector<std::int64_t> standing() {
    std::vector<std::int64_t> numbers;
    for (const platform::Object& watch : watches()) {
      if (watch.objectForKey("state").stringValue() == "standing") numbers.push_back(watch.objectForKey("number").longLongValue());
    }
    return numbers;
  }
  static bool eventuallyWatching(std::size_t count) {
    return eventually([count] { return standing().size() == count; });
  }
  [[nodiscard]] std::ptrdiff_t countIn(const std::string& what) {
    const auto path = "/proc/" + std::to_string(service().pid()) + "/" + what;
    return std::distance(std::filesystem::directory_iterator(path), std::filesystem::directory_iterator());
  }
  [[nodiscard]] std::size_t memory() {
    std::istringstream text(readFile("/proc/" + std::to_string(service().pid()) + "/statm"));
    std::size_t pages = 0;
    text >> pages >> pages;
    return pages * 4096;
  }

 private:
  static std::string messageWith(const std::string& value, int descriptors) {
    std::string entries = "\x0c" + little32(3);
    const auto put = [&entries](const std::string& key, const std::string& bytes) { entries += little32(key.size()) + key + bytes; };
    put("interface", encodedText("FileWatcherXpcServiceProtocol"));
    put("selector", encodedText("callToFileWatcher"));
    put("load", value);
    return frame(kMessage, entries, descriptors);
  }
};

TEST_P(WatcherClients, LeaveOneWatchHoweverOftenTheyComeAndGo) {
  ASSERT_TRUE(client().isOpen());
  ASSERT_TRUE(eventuallyWatching(1));
  const auto descriptors = countIn("fd");
  const auto threads = countIn("task");
  // As many as noticing a watch that stays takes, since each would show in the end.
  const char* const wanted = std::getenv("KESTRINE_RECONNECTS");
  const int count = wanted != nullptr ? std::atoi(wanted) : longOrShort(600, 60);
  for (int i = 0; i < count; ++i) {
    ASSERT_TRUE(client().isOpen()) << i;
    if (i % 20 == 0) {
      ASSERT_THAT(standing(), Not(IsEmpty())) << "after " << i;
    }
  }
  EXPECT_TRUE(eventuallyWatching(1)) << standing().size();
  // Up to four threads are parked for the next time.
  constexpr int kParked = 4;
  EXPECT_TRUE(eventually([&] { return countIn("fd") <= descriptors; })) << countIn("fd") << " and before " << descriptors;
  EXPECT_TRUE(eventually([&] { return countIn("task") <= threads + kParked; })) << countIn("task") << " and before " << threads;
  writeFile(in("file"), "text");
  EXPECT_TRUE(eventuallyFlagged());
}

TEST_P(WatcherClients, LeaveNoMomentWithoutAWatch) {
  ASSERT_TRUE(client().isOpen());
  ASSERT_TRUE(eventuallyWatching(1));
  std::atomic<bool> isOver = false;
  auto comingAndGoing = std::async(std::launch::async, [&] {
    while (!isOver) {
      if (!client().isOpen()) return false;
    }
    return true;
  });
  for (int i = 0; i < longOrShort(4, 2); ++i) {
    writeFile(in("file" + std::to_string(i)), "text");
    EXPECT_TRUE(eventuallyFlagged()) << i;
    resetFlag();
  }
  isOver = true;
  EXPECT_TRUE(comingAndGoing.get());
}

TEST_P(WatcherClients, HaveOneWatchEachWhileTheyAreThere) {
  platform::FileHandle first = client();
  ASSERT_TRUE(eventuallyWatching(1));
  platform::FileHandle second = client();
  ASSERT_TRUE(eventuallyWatching(2));
  // The newer one is not needed while somebody waits for the older.
  second.closeFile();
  EXPECT_TRUE(eventuallyWatching(1));
  second = client();
  ASSERT_TRUE(eventuallyWatching(2));
  first.closeFile();
  EXPECT_TRUE(eventuallyWatching(1));
  second.closeFile();
  // And when all have gone, one stays.
  EXPECT_TRUE(eventually([] {
    const auto status = platform::xpc::queryServiceStatus(kServiceName, std::chrono::seconds(5));
    return status && status->objectForKey("channel").arrayValue().front().objectForKey("peers").longLongValue() == 0;
  }));
  EXPECT_EQ(standing().size(), 1U);
  writeFile(in("file"), "text");
  EXPECT_TRUE(eventuallyFlagged());
}

TEST_P(WatcherClients, KeepTheWatchesOfOtherFolders) {
  ASSERT_TRUE(client().isOpen());
  ASSERT_TRUE(eventuallyWatching(1));
  makeFolder(folder("other"));
  makeFolder(folder("other/Kestrine"));
  setBasePath(folder("other"));
  ASSERT_TRUE(client().isOpen());
  ASSERT_TRUE(eventuallyWatching(2));
  writeFile(in("file"), "text");
  EXPECT_TRUE(eventuallyFlagged()) << "nobody has asked for the first folder again";
}

TEST_P(WatcherClients, ThatStartAtOnceEndInOneWatch) {
  std::vector<std::unique_ptr<Process>> starts;
  for (int i = 0; i < 8; ++i) starts.push_back(std::make_unique<Process>(std::vector<std::string>{KESTRINE_COMMAND, "start"}));
  for (const auto& start : starts) EXPECT_EQ(start->wait(), 0) << start->errorOutput();
  EXPECT_TRUE(eventuallyWatching(1)) << standing().size();
  writeFile(in("file"), "text");
  EXPECT_TRUE(eventuallyFlagged());
}

TEST_P(WatcherClients, HoldNoDescriptorsOnceTheyWatch) {
  const auto handles = nullDescriptors(64);
  std::vector<int> descriptors;
  descriptors.reserve(handles.size());
  for (const auto& each : handles) descriptors.push_back(each.fileDescriptor());
  std::vector<platform::FileHandle> clients;
  // Twice as many descriptors as may wait in the service.
  for (std::size_t i = 1; i <= 8; ++i) {
    clients.push_back(client(callWith(64), descriptors));
    ASSERT_TRUE(clients.back().isOpen()) << "cut off: client " << i;
    ASSERT_TRUE(eventuallyWatching(i)) << i;
  }
  EXPECT_LT(countIn("fd"), 256) << "what they passed along is kept";
}

TEST_P(WatcherClients, HoldNoMemoryOnceTheyWatch) {
  std::vector<platform::FileHandle> clients;
  clients.push_back(client());
  ASSERT_TRUE(eventuallyWatching(1));
  const std::size_t before = memory();
  // More than may wait in the service.
  constexpr std::size_t kBytes = std::size_t{15} << 20U;
  for (std::size_t i = 2; i <= 11; ++i) {
    clients.push_back(client(callOf(kBytes)));
    ASSERT_TRUE(clients.back().isOpen()) << "cut off: client " << i;
    ASSERT_TRUE(eventuallyWatching(i)) << i;
  }
  if (longOrShort(1, 0) == 0) return;  // a sanitizer keeps what was freed
  EXPECT_TRUE(eventually([&] { return memory() < before + 2 * kBytes; }, std::chrono::seconds(20))) << before << " and now " << memory();
}

TEST_P(WatcherClients, ThatHoldEveryConnectionLockNobodyOut) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlim_t former = std::exchange(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 4096));
  if (limit.rlim_cur < 2000 || setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    GTEST_SKIP() << "left out: more than a thousand connections, because this process may not have 2,000 descriptors";
  }
  {
    std::vector<platform::FileHandle> held;
    for (int i = 0; i < 1024 + 64; ++i) {
      held.push_back(connectTo(folder("run/xpc/") + kServiceName));
      // Who says nothing at all is closed by and by.
      ASSERT_TRUE(sendBytes(held.back(), frame(kHello))) << i;
    }
    const Outcome status = runToEnd({KESTRINE_COMMAND, "status"});
    EXPECT_EQ(status.status, 4) << status.output << status.errorOutput;
    const Outcome start = runToEnd({KESTRINE_COMMAND, "start"});
    EXPECT_EQ(start.status, 0) << start.errorOutput;
    writeFile(in("file"), "text");
    EXPECT_TRUE(eventuallyFlagged());
  }
  limit.rlim_cur = former;
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_P(WatcherClients, ThatHoldAllDescriptorsHaveNobodyElseCutOff) {
  const auto handles = nullDescriptors(64);
  std::vector<int> descriptors;
  descriptors.reserve(handles.size());
  for (const auto& each : handles) descriptors.push_back(each.fileDescriptor());
  std::vector<platform::FileHandle> held;
  for (int i = 0; i < 4; ++i) {
    const auto before = countIn("fd");
    held.push_back(connectTo(folder("run/xpc/") + kServiceName));
    ASSERT_TRUE(sendBytes(held.back(), callWith(64).substr(0, 50), descriptors));
    ASSERT_TRUE(eventually([&] { return countIn("fd") >= before + 64; })) << i;
  }
  const Outcome other = runToEnd(
      {"/usr/bin/env", "python3", KESTRINE_SOURCE_DIR "/tests/system/protocol_client.py", GetParam()[0] == '\0' ? "call" : "message"}, {});
  EXPECT_EQ(other.status, 0) << other.output << other.errorOutput;
  if (other.status == 0) {
    EXPECT_TRUE(eventuallyWatching(1));
  }
}

TEST_P(WatcherClients, KeepTheTimeThatTheyWereGiven) {
  service().signal(SIGSTOP);
  std::vector<platform::FileHandle> waiting;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = folder("run/xpc/") + kServiceName;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  // Until nobody else may wait.
  for (int error = 0; error == 0;) {
    waiting.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(waiting.back().fileDescriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) error = errno;
    ASSERT_TRUE(error == 0 || error == EAGAIN) << error;
  }
  const Outcome start = runToEnd({KESTRINE_COMMAND, "start", "--timeout", "2"}, {}, std::chrono::seconds(20));
  EXPECT_EQ(start.status, 6) << start.output << start.errorOutput;
  service().signal(SIGCONT);
}

TEST_P(WatcherClients, WriteNoLinesOfTheirOwnIntoTheLog) {
  const std::string forged = "2026-01-01 00:00:00.000 forged[1:1] all is well";
  const std::string text = "harmless\n" + forged + "\x1b[2J";
  ASSERT_TRUE(client(frame(kMessage, encodedDictionary({{"interface", text}, {"selector", text}, {"XPCDebugLog", text}}))).isOpen());
  ASSERT_TRUE(service().waitForErrorOutput("harmless"));
  ASSERT_TRUE(service().waitForErrorOutput("harmless\\012" + forged + "\\033[2J")) << log();
  EXPECT_EQ(log().find("\n" + forged), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Each, WatcherClients, testing::Values("", "10.7.5"),
                         [](const auto& each) { return std::string(each.param[0] == '\0' ? "Listening" : "ByMessages"); });

}  // namespace
}  // namespace kestrine::test
