// The whole service where it has no listener: on 10.7 it works on messages, any of which starts a watch.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <numeric>

#include "platform/foundation/value/Dictionary.h"
#include "tests/system/WatcherFixture.h"
#include "tests/xpc/RawSocket.h"
#include "xpc/XPCConnection.h"

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;

class LegacyService : public WatcherService {
 protected:
  LegacyService() {
    setBasePath(base());
    setenv("KESTRINE_SYSTEM_VERSION", "10.7.5", 1);
  }

  static std::shared_ptr<XPCConnection> connect() { return XPCConnection::initWithServiceName(kServiceName); }
  /// Returns when a running service has been handed everything that was sent before.
  static void waitUntilSent(const XPCConnection& connection) {
    connection.dispatchQueue()->sync([] {});
    std::promise<void> sent;
    connection.connection()->sendBarrier([&] { sent.set_value(); });
    sent.get_future().wait();
  }
  static std::vector<std::int64_t> numbersTo(int count) {
    std::vector<std::int64_t> numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), 1);
    return numbers;
  }
  void makeChange(const std::string& name) { ASSERT_EQ(runToEnd({"touch", in(name)}).status, 0); }
  static std::ptrdiff_t countIn(const std::string& folder) {
    const auto path = "/proc/" + std::to_string(servicePid()) + "/" + folder;
    return std::distance(std::filesystem::directory_iterator(path), std::filesystem::directory_iterator());
  }
};

TEST_F(LegacyService, StartsOnDemandWatchesAndRaisesTheFlagAgainAfterEachReset) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  for (const char* name : {"first", "second"}) {
    makeChange(name);
    ASSERT_TRUE(eventuallyFlagged());
    resetFlag();
  }
  EXPECT_EQ(application.interruptions(), 0);
}

TEST_F(LegacyService, StartsAWatchForAnyMessageWhateverItHolds) {
  startService();
  const std::vector<Object> messages = {Dictionary{{"any", "thing"}}, Dictionary(), "a text", platform::Array{Object::numberWithInt(7)}};
  std::vector<std::shared_ptr<XPCConnection>> connections;
  for (const Object& message : messages) {
    connections.push_back(connect());
    connections.back()->sendMessage(message);
    ASSERT_TRUE(eventuallyStanding(numbersTo(static_cast<int>(connections.size())))) << message.description();
  }
  makeChange("file");
  EXPECT_TRUE(eventuallyFlagged());
}

TEST_F(LegacyService, StartsNoWatchForALineForTheLog) {
  startService();
  const auto connection = connect();
  connection->_sendLog("said by the application");
  EXPECT_TRUE(service().waitForErrorOutput("LOG: said by the application"));
  EXPECT_TRUE(watches().empty());
}

TEST_F(LegacyService, LetsTenWatchesNotStarveEachOther) {
  startService();
  constexpr int kCount = 10;
  std::vector<std::shared_ptr<XPCConnection>> connections;
  connections.reserve(kCount);
  for (int i = 0; i < kCount; ++i) connections.push_back(connect());
  for (const auto& connection : connections) connection->sendMessage("watch");
  ASSERT_TRUE(eventuallyStanding(numbersTo(kCount)));
  makeChange("file");
  EXPECT_TRUE(eventuallyTold(kCount)) << "each watch tells the change";
  EXPECT_TRUE(eventuallyFlagged());
  // An eleventh is served, although ten are busy for ever.
  connections.push_back(connect());
  connections.back()->sendMessage("watch");
  EXPECT_TRUE(eventuallyStanding(numbersTo(kCount + 1)));
}

TEST_F(LegacyService, NeverLosesTheFirstMessageOfAConnection) {
  startService();
  const int count = longOrShort(40, 10);
  for (int i = 0; i < count; ++i) {
    const auto connection = connect();
    connection->sendMessage("watch");
    waitUntilSent(*connection);
    // And the client is gone, whose watch lasts until that of the next one stands.
  }
  EXPECT_TRUE(eventuallyStanding({count}));
  makeChange("file");
  EXPECT_TRUE(eventuallyFlagged());
}

TEST_F(LegacyService, HoldsUpASecondMessageOfTheConnectionThatWatchesAndNobodyElse) {
  startService();
  const auto first = connect();
  first->sendMessage("watch");
  ASSERT_TRUE(eventuallyStanding({1}));
  first->sendMessage("again");
  waitUntilSent(*first);
  const auto second = connect();
  second->sendMessage("watch");
  EXPECT_TRUE(eventuallyStanding({1, 2}));
}

TEST_F(LegacyService, LeavesNoThreadAndNoDescriptorOfTenThousandConnections) {
  startService();
  const auto visit = [this] {
    const platform::FileHandle socket = connectTo(folder("run/xpc/") + kServiceName);
    // The greeting comes when the service has taken the peer.
    return sendBytes(socket, frame(kHello)) && readFrame(socket).has_value();
  };
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(visit());
  const auto descriptors = countIn("fd");
  const auto threads = countIn("task");
  const int count = longOrShort(10'000, 1'000);
  for (int i = 0; i < count; ++i) ASSERT_TRUE(visit()) << i;
  // Up to four threads are parked for the next time.
  constexpr int kParked = 4;
  EXPECT_TRUE(eventually([&] { return countIn("fd") <= descriptors; })) << countIn("fd") << " and before " << descriptors;
  EXPECT_TRUE(eventually([&] { return countIn("task") <= threads + kParked; })) << countIn("task") << " and before " << threads;
  // And it still does its work.
  const auto connection = connect();
  connection->sendMessage("watch");
  EXPECT_TRUE(eventuallyStanding({1}));
}

}  // namespace
}  // namespace kestrine::test
