// The client library as an application uses it, with the real service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "app/client/FileWatcherClient.h"
#include "platform/xpc/launch/ServiceLauncher.h"
#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::HasSubstr;

class Client : public testing::Test {
 protected:
  Client() {
    sandbox.enter();
    client.setEventHandler([this](const FileWatcherClient::ServiceEvent& event) {
      const std::lock_guard lock(mutex);
      events.push_back(event);
    });
  }

  std::vector<FileWatcherClient::ServiceEvent> told() {
    const std::lock_guard lock(mutex);
    return events;
  }
  bool eventuallyTold(std::size_t count) {
    return eventually([&] { return told().size() >= count; }, kLongEnough);
  }

  WatchStart startWatching() {
    makeFolder(sandbox.watched());
    EXPECT_TRUE(client.setBasePath(sandbox.base()));
    return client.startWatching();
  }

  Sandbox sandbox;
  std::mutex mutex;
  std::vector<FileWatcherClient::ServiceEvent> events;
  FileWatcherClient client;
};

TEST_F(Client, StartsWatchingAndWaitsForTheFlag) {
  const WatchStart start = startWatching();
  ASSERT_TRUE(start.stands()) << start.text;
  EXPECT_EQ(start.outcome, WatchStart::Outcome::Watching);
  EXPECT_EQ(start.folder, sandbox.watched());
  signalProcess(start.process, 0);

  EXPECT_FALSE(client.waitForFlag(std::chrono::milliseconds(50)));
  for (int i = 0; i < 2; ++i) {
    writeFile(sandbox.watched() + "/file", "text");
    EXPECT_TRUE(client.waitForFlag(kLongEnough));
    EXPECT_EQ(sandbox.flag(), Object("0"));
  }
  EXPECT_EQ(client.startWatching().outcome, WatchStart::Outcome::AlreadyWatching);
}

TEST_F(Client, TakesTheFlagWithoutWaiting) {
  EXPECT_FALSE(client.takeFlag());
  sandbox.setFlag("1");
  EXPECT_TRUE(client.takeFlag());
  EXPECT_FALSE(client.takeFlag());
  EXPECT_EQ(sandbox.flag(), Object("0"));
}

TEST_F(Client, FindsAFlagThatWasRaisedBeforeItWaited) {
  sandbox.setFlag("1");
  EXPECT_TRUE(client.waitForFlag(kLongEnough));
  EXPECT_EQ(sandbox.flag(), Object("0"));
}

TEST_F(Client, SaysThatTheServiceDiedAndAsksAgain) {
  pid_t process = startWatching().process;
  for (std::size_t i = 0; i < 3; ++i) {
    signalProcess(process, SIGKILL);
    ASSERT_TRUE(eventuallyTold(2 * i + 2));
    EXPECT_EQ(told()[2 * i].kind, FileWatcherClient::ServiceEvent::Kind::Died);
    EXPECT_THAT(told()[2 * i].text, HasSubstr("(process " + std::to_string(process) + ") has died; asking again"));
    EXPECT_EQ(told()[2 * i + 1].kind, FileWatcherClient::ServiceEvent::Kind::WatchingAgain) << told()[2 * i + 1].text;
    process = platform::xpc::runningService("Ostrabyte.FileWatcherXpcService").processIdentifier;
    client.takeFlag();
    writeFile(sandbox.watched() + "/file", "text");
    EXPECT_TRUE(client.waitForFlag(kLongEnough));
  }
}

TEST_F(Client, AsksAgainAlsoWhereAnotherProcessHadAsked) {
  ASSERT_EQ(sandbox.start().status, 0);
  const WatchStart start = client.startWatching();
  ASSERT_EQ(start.outcome, WatchStart::Outcome::AlreadyWatching) << start.text;
  signalProcess(start.process, SIGKILL);
  ASSERT_TRUE(eventuallyTold(2));
  EXPECT_EQ(told()[1].kind, FileWatcherClient::ServiceEvent::Kind::WatchingAgain) << told()[1].text;
}

TEST_F(Client, KeepsAskingWhenTheServiceDoesNotComeBack) {
  const WatchStart start = startWatching();
  ASSERT_TRUE(start.stands()) << start.text;
  sandbox.installService("/bin/false");
  signalProcess(start.process, SIGKILL);
  ASSERT_TRUE(eventuallyTold(3));
  EXPECT_EQ(told()[1].kind, FileWatcherClient::ServiceEvent::Kind::StillNotWatching);
  EXPECT_EQ(told()[2].kind, FileWatcherClient::ServiceEvent::Kind::StillNotWatching);
  sandbox.installService(KESTRINE_SERVICE);
  EXPECT_TRUE(eventually([&] { return told().back().kind == FileWatcherClient::ServiceEvent::Kind::WatchingAgain; }, kLongEnough));
}

TEST_F(Client, CallsTheHandlerOnAThreadThatTakesNoSignals) {
  // Shared, since the client outlives the test's body and may call once more.
  const auto open = std::make_shared<std::atomic<int>>(-1);
  client.setEventHandler([open](const FileWatcherClient::ServiceEvent&) {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    int count = 0;
    for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGUSR1, SIGALRM, SIGRTMIN}) count += sigismember(&blocked, number) == 1 ? 0 : 1;
    *open = count;
  });
  const WatchStart start = startWatching();
  ASSERT_TRUE(start.stands()) << start.text;
  signalProcess(start.process, SIGKILL);
  ASSERT_TRUE(eventually([&] { return *open >= 0; }, kLongEnough));
  EXPECT_EQ(*open, 0);
}

TEST_F(Client, GoesOnWhenItsHandlerThrows) {
  client.setEventHandler([this](const FileWatcherClient::ServiceEvent& event) {
    {
      const std::lock_guard lock(mutex);
      events.push_back(event);
    }
    if (event.kind == FileWatcherClient::ServiceEvent::Kind::Died) throw 7;
    throw std::runtime_error("thrown by the test");
  });
  pid_t process = startWatching().process;
  for (std::size_t i = 0; i < 2; ++i) {
    signalProcess(process, SIGKILL);
    ASSERT_TRUE(eventuallyTold(2 * i + 2));
    EXPECT_EQ(told()[2 * i].kind, FileWatcherClient::ServiceEvent::Kind::Died);
    EXPECT_EQ(told()[2 * i + 1].kind, FileWatcherClient::ServiceEvent::Kind::WatchingAgain) << told()[2 * i + 1].text;
    process = platform::xpc::runningService("Ostrabyte.FileWatcherXpcService").processIdentifier;
  }
}

TEST_F(Client, TakesANewHandlerWhileEventsArrive) {
  pid_t process = startWatching().process;
  std::atomic<bool> done = false;
  std::atomic<int> calls = 0;
  std::thread setter([&] {
    while (!done) client.setEventHandler([&calls](const FileWatcherClient::ServiceEvent&) { ++calls; });
  });
  for (int i = 0; i < 3; ++i) {
    signalProcess(process, SIGKILL);
    EXPECT_TRUE(eventually([&] { return calls >= 2 * i + 2; }, kLongEnough));
    process = platform::xpc::runningService("Ostrabyte.FileWatcherXpcService").processIdentifier;
  }
  done = true;
  setter.join();
}

TEST_F(Client, LetsTheWatchGoOnWhenItIsDestroyed) {
  makeFolder(sandbox.watched());
  {
    FileWatcherClient other;
    ASSERT_TRUE(other.setBasePath(sandbox.base()));
    ASSERT_TRUE(other.startWatching().stands());
  }
  writeFile(sandbox.watched() + "/file", "text");
  EXPECT_TRUE(eventually([&] { return sandbox.flag() == Object("1"); }, kLongEnough));
}

TEST_F(Client, AsksNothingWhereTheBaseFolderCannotBeWatched) {
  ASSERT_TRUE(client.setBasePath(sandbox.folder("drive")));
  writeFile(sandbox.folder("drive"), "text");
  EXPECT_FALSE(client.setBasePath(sandbox.folder("drive")));
  const WatchStart start = client.startWatching();
  EXPECT_EQ(start.outcome, WatchStart::Outcome::UnusableBase);
  EXPECT_FALSE(start.stands());
  EXPECT_FALSE(platform::xpc::runningService("Ostrabyte.FileWatcherXpcService").isAlive);
}

TEST_F(Client, SaysThatAFlagCannotBeReset) {
  if (geteuid() == 0) GTEST_SKIP() << "left out: a preferences folder without permission, because root may write everywhere";
  sandbox.setFlag("1");
  std::filesystem::permissions(sandbox.preferences(), std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
  EXPECT_THROW(client.takeFlag(), std::runtime_error);
  std::filesystem::permissions(sandbox.preferences(), std::filesystem::perms::owner_all);
}

}  // namespace
}  // namespace kestrine::test
