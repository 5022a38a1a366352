// `kestrine start` and `kestrine stop`, with the real service.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "platform/foundation/base/FileHandle.h"
#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

TEST(StartCommand, StartsTheServiceMakesTheFolderAndReturnsWhenTheWatchStands) {
  const Sandbox sandbox;
  const Outcome started = sandbox.start();
  EXPECT_EQ(started.status, 0) << started.errorOutput;
  EXPECT_THAT(started.output, HasSubstr("watching '" + sandbox.watched() + "', by process "));
  EXPECT_TRUE(std::filesystem::is_directory(sandbox.watched()));
  EXPECT_EQ(sandbox.defaults("Ostrabyte.Kestrine", "kestrinePathKey"), Object(sandbox.base()));

  writeFile(sandbox.watched() + "/hello", "world");
  EXPECT_TRUE(eventually([&] { return sandbox.flag() == Object("1"); }, kLongEnough));
}

TEST(StartCommand, AsksForNoSecondWatchOfAFolder) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.start().status, 0);
  const pid_t service = sandbox.service();
  const Outcome again = sandbox.start();
  EXPECT_EQ(again.status, 0);
  EXPECT_THAT(again.output, HasSubstr("'" + sandbox.watched() + "' is watched already, by process " + std::to_string(service)));
  const std::string status = sandbox.run({"status"}).output;
  EXPECT_THAT(status, HasSubstr("watch 1 "));
  EXPECT_THAT(status, Not(HasSubstr("watch 2 ")));
}

TEST(StartCommand, UsesTheStoredBaseFolder) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.run({"defaults", "write", "Ostrabyte.Kestrine", "kestrinePathKey", sandbox.base()}).status, 0);
  EXPECT_EQ(sandbox.run({"start"}).status, 0);
  EXPECT_TRUE(std::filesystem::is_directory(sandbox.watched()));
}

TEST(StartCommand, KeepsTheOtherPreferencesWhenItStoresTheBaseFolder) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.run({"defaults", "write", "Ostrabyte.Kestrine", "userIdKey", "42"}).status, 0);
  ASSERT_EQ(sandbox.start().status, 0);
  EXPECT_EQ(sandbox.defaults("Ostrabyte.Kestrine", "userIdKey"), Object("42"));
}

TEST(StartCommand, TakesARelativeBaseFolderFromTheCurrentOne) {
  const Sandbox sandbox;
  Process::Options options = sandbox.options();
  options.directory = sandbox.folder("home");
  const Outcome started = runToEnd(Sandbox::command({"start", "--base", "../base"}), options);
  EXPECT_EQ(started.status, 0) << started.errorOutput;
  EXPECT_EQ(sandbox.defaults("Ostrabyte.Kestrine", "kestrinePathKey"), Object(sandbox.folder("home") + "/../base"));
  EXPECT_TRUE(std::filesystem::is_directory(sandbox.watched()));
}

TEST(StartCommand, WarnsOfAnotherFolderThatGoesOnBeingWatched) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.start().status, 0);
  makeFolder(sandbox.folder("other"));
  const Outcome other = sandbox.run({"start", "--base", sandbox.folder("other")});
  EXPECT_EQ(other.status, 0) << other.errorOutput;
  EXPECT_THAT(other.output, HasSubstr("watching '" + sandbox.folder("other") + "/Kestrine'"));
  EXPECT_THAT(other.errorOutput, HasSubstr("goes on watching '" + sandbox.watched() + "' too; 'kestrine stop' ends all watches"));
}

TEST(StartCommand, WatchesAFolderWhateverItsName) {
  for (const std::string name : {"My Documents", "a%20b", "a?b", "a#b", "50%", "\xff"}) {
    const Sandbox sandbox;
    const std::string base = sandbox.folder(name);
    makeFolder(base);
    const Outcome started = sandbox.run({"start", "--base", base});
    EXPECT_EQ(started.status, 0) << started.errorOutput;
    EXPECT_THAT(started.output, HasSubstr("watching '" + base + "/Kestrine', by process "));
    EXPECT_EQ(started.errorOutput, "");
    EXPECT_TRUE(std::filesystem::is_directory(base + "/Kestrine"));
    writeFile(base + "/Kestrine/file", "text");
    EXPECT_TRUE(eventually([&] { return sandbox.flag() == Object("1"); }, kLongEnough)) << name;
    const std::string status = sandbox.run({"status"}).output;
    EXPECT_THAT(status, HasSubstr("standing, '" + base + "/Kestrine'"));
    EXPECT_THAT(status, HasSubstr("base              '" + base + "'\n"));
    // And what is stored is found again by the next one.
    EXPECT_THAT(sandbox.run({"start"}).output, HasSubstr("'" + base + "/Kestrine' is watched already"));
  }
}

TEST(StartCommand, RefusesAStoredTextThatNamesNoFolderOfThisMachine) {
  const Sandbox sandbox;
  for (const std::string& text : {std::string("/?x"), sandbox.base() + "?b", sandbox.base() + "#b", std::string("//h/tmp"), std::string(),
                                  sandbox.folder("my files"), std::string("mailto:me"), std::string("/a%00b"), std::string("/")}) {
    ASSERT_EQ(sandbox.run({"defaults", "write", "Ostrabyte.Kestrine", "kestrinePathKey", text}).status, 0);
    const Outcome started = sandbox.run({"start"});
    EXPECT_EQ(started.status, 5) << text << ": " << started.output;
    EXPECT_THAT(started.errorOutput, HasSubstr("the base '" + text + "' names no folder of this machine: "));
    EXPECT_THAT(sandbox.run({"status"}).output, HasSubstr("the base '" + text + "' names no folder of this machine: "));
    EXPECT_EQ(sandbox.run({"status"}).status, 3);
  }
}

TEST(StartCommand, RefusesABaseThatCanNeverBeAFolder) {
  const Sandbox sandbox;
  writeFile(sandbox.folder("file"), "text");
  for (const std::string& base : {sandbox.folder("file"), std::string("/dev/null"), sandbox.folder(std::string(300, 'x'))}) {
    const Outcome given = sandbox.run({"start", "--base", base});
    EXPECT_EQ(given.status, 5) << base;
    EXPECT_THAT(given.errorOutput, HasSubstr("the base folder '" + base + "' cannot be watched: "));
    EXPECT_EQ(sandbox.defaults("Ostrabyte.Kestrine", "kestrinePathKey"), Object());
  }
  ASSERT_EQ(sandbox.run({"defaults", "write", "Ostrabyte.Kestrine", "kestrinePathKey", sandbox.folder("file")}).status, 0);
  const Outcome stored = sandbox.run({"start"});
  EXPECT_EQ(stored.status, 5);
  EXPECT_THAT(stored.errorOutput, HasSubstr("'" + sandbox.folder("file") + "' is no folder"));
  EXPECT_EQ(sandbox.run({"status"}).status, 3) << "nothing was asked";
}

TEST(StartCommand, TakesAPathForAPathWhateverItsBeginning) {
  const Sandbox sandbox;
  const Outcome doubled = sandbox.run({"start", "--base", "/" + sandbox.base()});
  EXPECT_EQ(doubled.status, 0) << doubled.errorOutput;
  EXPECT_THAT(doubled.output, HasSubstr("watching '" + sandbox.watched() + "'"));
  for (const std::string& base : {std::string(), "file://" + sandbox.base()}) {
    EXPECT_EQ(sandbox.run({"start", "--base", base}).status, 5) << base;
  }
}

TEST(StartCommand, SaysAtOnceThatTheFlagCannotBeRaised) {
  const Sandbox sandbox;
  const std::string file = sandbox.preferences() + "/Ostrabyte.FileWatcherXpcService.plist";
  std::filesystem::create_directories(file);
  const Outcome started = sandbox.start();
  EXPECT_EQ(started.status, 0) << "the watch stands";
  EXPECT_THAT(started.errorOutput, HasSubstr("kestrine: warning: the flag cannot be raised now: "));
  EXPECT_THAT(sandbox.run({"status"}).output, HasSubstr("flag              not raised\n")) << "nothing has changed";
  writeFile(sandbox.watched() + "/file", "text");
  EXPECT_TRUE(eventually([&] {
    const std::string status = sandbox.run({"status"}).output;
    return status.find("flag              cannot be raised, since 20") != std::string::npos &&
           status.find(", because ") != std::string::npos;
  }));
  EXPECT_THAT(sandbox.start().errorOutput, HasSubstr("kestrine: warning: the service has a flag to raise and cannot: "));
  std::filesystem::remove(file);
  EXPECT_TRUE(eventually([&] { return sandbox.flag() == Object("1"); }, kLongEnough));
  EXPECT_THAT(sandbox.run({"status"}).output, HasSubstr("flag              raised\n"));
}

TEST(StartCommand, SaysNothingOfAFlagThatCanBeRaised) {
  const Sandbox sandbox;
  sandbox.setFlag("0");
  EXPECT_EQ(sandbox.start().errorOutput, "");
  EXPECT_EQ(sandbox.flag(), Object("0")) << "trying is no raising";
}

TEST(StartCommand, WaitsForALockWithoutRepeatingItself) {
  const Sandbox sandbox;
  // A service that holds its lock and has no socket, as one that is about to come up or to go.
  makeFolder(sandbox.folder("run/xpc"));
  chmod(sandbox.folder("run/xpc").c_str(), 0700);
  const std::string lock = sandbox.folder("run/xpc/.Ostrabyte.FileWatcherXpcService.lock");
  const platform::FileHandle file(open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  struct flock whole {};
  whole.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(file.fileDescriptor(), F_OFD_SETLK, &whole), 0);
  const Outcome started = sandbox.run({"start", "--base", sandbox.base(), "--timeout", "2"});
  EXPECT_NE(started.status, 0);
  EXPECT_LT(std::ranges::count(started.errorOutput, '\n'), 8) << started.errorOutput;
  EXPECT_THAT(started.errorOutput, Not(HasSubstr("no service has not said")));
}

TEST(StartCommand, RefusesATimeOfNothing) {
  const Sandbox sandbox;
  const Outcome outcome = sandbox.run({"start", "--timeout", "0"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.errorOutput, HasSubstr("'--timeout 0' is no number of seconds above 0, up to 86400"));
}

TEST(StartCommand, NamesTheRemedyWhereNoBaseFolderIsSetOrItDoesNotExist) {
  const Sandbox sandbox;
  const Outcome none = sandbox.run({"start"});
  EXPECT_EQ(none.status, 5);
  EXPECT_THAT(none.errorOutput, HasSubstr("no base folder is set; set one with 'kestrine start --base DIR'"));
  const Outcome missing = sandbox.run({"start", "--base", sandbox.folder("missing")});
  EXPECT_EQ(missing.status, 5);
  EXPECT_THAT(missing.errorOutput, HasSubstr("'" + sandbox.folder("missing") + "' is no existing folder; make it first"));
}

TEST(StartCommand, WaitsForAStoredBaseFolderThatIsNotThereYet) {
  const Sandbox sandbox;
  const std::string base = sandbox.folder("drive");
  ASSERT_EQ(sandbox.run({"defaults", "write", "Ostrabyte.Kestrine", "kestrinePathKey", base}).status, 0);
  const Outcome started = sandbox.run({"start"});
  EXPECT_EQ(started.status, 0) << started.errorOutput;
  EXPECT_THAT(started.errorOutput, HasSubstr("'" + base + "' does not exist now; watching begins when it appears"));
  makeFolder(base);
  makeFolder(base + "/Kestrine");
  EXPECT_TRUE(eventually([&] { return sandbox.flag() == Object("1"); }, kLongEnough));
}

TEST(StartCommand, SaysWhenTheFolderCannotBeMade) {
  const Sandbox sandbox;
  const Outcome outcome = sandbox.run({"start", "--base", "/proc"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errorOutput, HasSubstr("the folder '/proc/Kestrine' cannot be made: "));
}

TEST(StartCommand, SaysWhenTheServiceIsNotInstalled) {
  const Sandbox sandbox;
  std::filesystem::remove_all(sandbox.folder("data"));
  const Outcome outcome = sandbox.start();
  EXPECT_EQ(outcome.status, 7);
  EXPECT_THAT(outcome.errorOutput, HasSubstr("there is no service Ostrabyte.FileWatcherXpcService"));
  EXPECT_THAT(outcome.errorOutput, HasSubstr("install the service"));
}

TEST(StartCommand, SaysWhenTheServiceDoesNotStart) {
  for (const char* program : {"/nonexistent/program", "/bin/false"}) {
    const Sandbox sandbox;
    sandbox.installService(program);
    const Outcome outcome = sandbox.run({"start", "--base", sandbox.base(), "--timeout", "20"});
    EXPECT_EQ(outcome.status, 7) << program << ": " << outcome.errorOutput;
    EXPECT_THAT(outcome.errorOutput, Not(IsEmpty()));
  }
}

TEST(StartCommand, GivesUpOnAServiceThatDoesNotAnswer) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.start().status, 0);
  const pid_t service = sandbox.service();
  stopProcess(service);
  const Outcome outcome = sandbox.run({"start", "--timeout", "0.5"});
  EXPECT_EQ(outcome.status, 6);
  EXPECT_THAT(outcome.errorOutput, HasSubstr("the service (process " + std::to_string(service) + ") has not said within 500 ms"));
  signalProcess(service, SIGCONT);
}

TEST(StopCommand, EndsTheServiceAndLeavesTheFlag) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.start().status, 0);
  sandbox.setFlag("1");
  const pid_t service = sandbox.service();
  const Outcome stopped = sandbox.run({"stop"});
  EXPECT_EQ(stopped.status, 0);
  EXPECT_EQ(stopped.output, "the service (process " + std::to_string(service) + ") has ended\n");
  EXPECT_EQ(sandbox.run({"status"}).status, 3);
  EXPECT_EQ(sandbox.flag(), Object("1"));
  EXPECT_TRUE(std::filesystem::is_directory(sandbox.folder("run/xpc")));
  EXPECT_FALSE(std::filesystem::exists(sandbox.folder("run/xpc/Ostrabyte.FileWatcherXpcService")));
}

TEST(StopCommand, SaysWhenNothingRuns) {
  const Sandbox sandbox;
  const Outcome stopped = sandbox.run({"stop"});
  EXPECT_EQ(stopped.status, 0);
  EXPECT_EQ(stopped.output, "the service is not running\n");
}

TEST(StopCommand, GivesUpOnAServiceThatDoesNotEndAndNamesTheRemedy) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox.start().status, 0);
  const pid_t service = sandbox.service();
  stopProcess(service);
  const Outcome outcome = sandbox.run({"stop", "--timeout", "0.2"});
  EXPECT_EQ(outcome.status, 6);
  EXPECT_THAT(outcome.errorOutput, HasSubstr("'kill -9 " + std::to_string(service) + "' ends it at once"));
  signalProcess(service, SIGCONT);
  EXPECT_TRUE(eventually([&] { return sandbox.run({"status"}).status == 3; }));
}

TEST(StartCommand, WatchesAgainAfterAStop) {
  const Sandbox sandbox;
  for (int i = 0; i < 3; ++i) {
    const Outcome started = sandbox.start();
    EXPECT_EQ(started.status, 0) << started.errorOutput;
    EXPECT_THAT(started.output, HasSubstr("watching '"));
    EXPECT_EQ(sandbox.run({"stop"}).status, 0);
  }
}

}  // namespace
}  // namespace kestrine::test
