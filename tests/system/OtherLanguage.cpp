// A client that has nothing in common with this code but docs/protocol.md starts the service and the watch.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/foundation/base/FileHandle.h"
#include "tests/system/WatcherFixture.h"

namespace kestrine::test {
namespace {

using testing::HasSubstr;

class OtherLanguage : public WatcherService {
 protected:
  static Outcome run(const std::string& action) {
    return runToEnd({"/usr/bin/env", "python3", KESTRINE_SOURCE_DIR "/tests/system/protocol_client.py", action}, {},
                    std::chrono::seconds(150));
  }

  /// The whole job by way of `action`: the client starts the service, the service the watch, and a change raises the flag.
  void startsAWatchBy(const std::string& action) {
    setBasePath(base());
    const Outcome first = run(action);
    ASSERT_EQ(first.status, 0) << first.errorOutput << first.output;
    const std::string pid = std::to_string(servicePid());
    EXPECT_THAT(first.output, HasSubstr("started the service\n"));
    EXPECT_THAT(first.output, HasSubstr("greeted by " + pid + "\n"));
    EXPECT_THAT(first.output, HasSubstr("the service has "));
    ASSERT_TRUE(eventuallyStanding({1})) << log();
    writeFile(in("file"), "text");
    EXPECT_TRUE(eventuallyFlagged());

    // The service is there now, and the status is told in the same words.
    const Outcome second = run("status");
    ASSERT_EQ(second.status, 0) << second.errorOutput;
    EXPECT_THAT(second.output, HasSubstr("process " + pid + ", "));
    EXPECT_THAT(second.output, HasSubstr("\n1 watches\n"));
  }
};

TEST_F(OtherLanguage, StartsTheWatcherByAnObjectLevelCallAndPassesADescriptor) { startsAWatchBy("call"); }

TEST_F(OtherLanguage, StartsTheWatcherByAnyMessageOn10_7AndPassesADescriptor) {
  setenv("KESTRINE_SYSTEM_VERSION", "10.7.5", 1);
  startsAWatchBy("message");
}

TEST_F(OtherLanguage, IsServedByAServiceThatRunsAlready) {
  setBasePath(base());
  startService();
  for (const std::int64_t watches : {1, 2}) {
    const Outcome outcome = run("call");
    ASSERT_EQ(outcome.status, 0) << outcome.errorOutput << outcome.output;
    EXPECT_EQ(outcome.output.find("started the service"), std::string::npos);
    EXPECT_THAT(outcome.output, HasSubstr("greeted by " + std::to_string(service().pid()) + "\n"));
    // The watch of the client that is gone ends when that of the next one stands.
    ASSERT_TRUE(eventuallyStanding({watches})) << log();
  }
}

TEST_F(OtherLanguage, WaitsForTheWatchAndTakesTheFlag) {
  for (const char* version : {"", "10.7.5"}) {
    setenv("KESTRINE_SYSTEM_VERSION", version, 1);
    setBasePath(base());
    const Outcome watch = run("watch");
    ASSERT_EQ(watch.status, 0) << watch.errorOutput << watch.output;
    EXPECT_THAT(watch.output, HasSubstr("standing: " + watchedFolder() + "\n"));
    // What else the file holds is nobody's to lose.
    platform::UserDefaults preferences(kServiceName, folder("config/Preferences"));
    preferences.setObject_forKey(platform::Object::numberWithLongLong(7), "another key");
    ASSERT_TRUE(preferences.synchronize());
    EXPECT_EQ(run("reset").output, "the flag was not raised\n");
    for (const char* name : {"first", "second"}) {
      writeFile(in(std::string(name) + version), "text");
      ASSERT_TRUE(eventuallyFlagged());
      EXPECT_EQ(run("reset").output, "the flag was raised\n");
      EXPECT_EQ(flag(), platform::Object("0"));
    }
    EXPECT_TRUE(preferences.synchronize());
    EXPECT_EQ(preferences.objectForKey("another key").longLongValue(), 7);
    ASSERT_EQ(runToEnd({KESTRINE_COMMAND, "stop"}).status, 0);
  }
}

TEST_F(OtherLanguage, TakesTheLockAndGivesUpWhenItDoesNotComeBack) {
  setBasePath(base());
  const std::string file = folder("config/Preferences/") + kServiceName + ".plist";
  writeFile(file, "<plist version=\"1.0\"><dict><key>FileWatcherStatusKey</key><string>1</string></dict></plist>");
  platform::FileHandle lock(open((file + ".lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(flock(lock.fileDescriptor(), LOCK_EX), 0);
  const Outcome refused = run("reset");
  EXPECT_EQ(refused.status, 1) << refused.output;
  EXPECT_THAT(refused.errorOutput, HasSubstr("somebody has the lock of the preferences"));
  EXPECT_EQ(flag(), platform::Object("1"));
  lock.closeFile();
  EXPECT_EQ(run("reset").output, "the flag was raised\n");
}

// Ten at once, in two languages: each change of the value is somebody's.
TEST_F(OtherLanguage, TakesEachFlagOnceTogetherWithOthers) {
  platform::UserDefaults preferences(kServiceName, folder("config/Preferences"));
  preferences.setObject_forKey("1", "FileWatcherStatusKey");
  ASSERT_TRUE(preferences.synchronize());
  std::vector<std::unique_ptr<Process>> clients;
  for (int i = 0; i < 10; ++i) {
    clients.push_back(std::make_unique<Process>(
        std::vector<std::string>{"/usr/bin/env", "python3", KESTRINE_SOURCE_DIR "/tests/system/protocol_client.py", "reset"}));
  }
  int taken = 0;
  for (const auto& client : clients) {
    ASSERT_EQ(client->wait(), 0) << client->errorOutput();
    taken += client->output() == "the flag was raised\n" ? 1 : 0;
  }
  EXPECT_EQ(taken, 1);
}

TEST_F(OtherLanguage, LeavesNoSocketOfAProgramThatCannotBeRun) {
  setBasePath(base());
  writeFile(folder("data/xpc-services/") + kServiceName + ".plist",
            "<plist version=\"1.0\"><dict><key>Program</key><string>/nowhere/service</string></dict></plist>");
  const Outcome outcome = run("call");
  EXPECT_EQ(outcome.status, 1) << outcome.output;
  EXPECT_THAT(outcome.errorOutput, HasSubstr("/nowhere/service cannot be run: No such file or directory"));
  EXPECT_NE(access((folder("run/xpc/") + kServiceName).c_str(), F_OK), 0);
}

TEST_F(OtherLanguage, RefusesWhatOthersMayHaveAHandIn) {
  setBasePath(base());
  makeFolder(folder("run/xpc"));
  ASSERT_EQ(chmod(folder("run/xpc").c_str(), 0777), 0);
  const Outcome outcome = run("call");
  EXPECT_EQ(outcome.status, 1) << outcome.output;
  EXPECT_THAT(outcome.errorOutput, HasSubstr("others may write to something on the way to " + folder("run/xpc")));
}

TEST_F(OtherLanguage, MessagesThatAreNoCallsStartNothingWhereThereAreCalls) {
  setBasePath(base());
  startService();
  const Outcome outcome = run("ignored");
  EXPECT_EQ(outcome.status, 0) << outcome.errorOutput << outcome.output;
  EXPECT_THAT(outcome.output, HasSubstr("the service has closed the pipe\n"));
  const Outcome status = run("status");
  EXPECT_THAT(status.output, HasSubstr("\n0 watches\n"));
}

}  // namespace
}  // namespace kestrine::test
